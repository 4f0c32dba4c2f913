#!/bin/sh
# Starts mail servers for the account "anna", "geheim 1", in the folder that it is called in.
#
#   start.sh ADDRESS exim|postfix|dovecot
#
# Exim comes with Dovecot, whose log tells it who has logged in there, and which checks tokens for it
# with the key in keys/. Dovecot alone is there twice: on ports 2111 and 2996 it takes no OAUTHBEARER.
set -e
trap 'trap "" TERM; kill 0' TERM EXIT
here=$(dirname "$0")
skip() { echo "skipped: $1"; exit 77; }
[ "$(id -u)" = 0 ] || skip "only root can start mail servers"
# Debian's Postfix cannot be installed beside Exim: its package is unpacked, once.
unpacked=$here/../../build/postfix
if [ "$2" = postfix ] && [ ! -d "$unpacked" ]; then
  apt-get -qq -o APT::Sandbox::User=root download postfix && dpkg -x postfix_*.deb postfix &&
    mv postfix "$unpacked" || skip "the package of Postfix cannot be had"
fi
postfix=$unpacked/usr/lib/postfix

mkdir -p box log sasl mail/new mail/cur mail/tmp spool/data
(cd spool && mkdir active bounce defer deferred flush incoming pid private public trace)
for name in exim.conf main.cf master.cf dovecot.conf dovecot-oauth2.conf; do
  sed "s,@folder@,$PWD,; s,@address@,$1,; s,@postfix@,$postfix,
       s,@tls@,-o smtpd_tls_wrappermode=yes," "$here/$name" > "$name"
done
certify() {
  openssl req -x509 -key key.pem -subj /CN=test -addext "subjectAltName=$1" | cat key.pem -
}
openssl ecparam -name prime256v1 -genkey -noout -out key.pem
certify "IP:$1" > server.pem
certify DNS:elsewhere.example > elsewhere.pem
openssl x509 -in server.pem -signkey key.pem -days 0 | cat key.pem - > expired.pem
echo 'geheim 1' > right
echo falsch > wrong
echo 'anna:{PLAIN}geheim 1' > passwords
printf 'auxprop_plugin: sasldb\nsasldb_path: %s/sasl/db\n' "$PWD" > sasl/smtpd.conf
touch log/dovecot
if [ "$2" = postfix ]; then
  sed '/ inet \|^pickup/d; s/ y / n /' "$unpacked/usr/share/postfix/master.cf.dist" >> master.cf
  printf 'geheim 1' | saslpasswd2 -p -c -f sasl/db -u test.example anna || skip "needs saslpasswd2"
fi
chmod -R 777 .
chmod 600 right wrong
chmod 644 exim.conf main.cf master.cf

start() { command -v "$1" > log/found || skip "needs $1"; "$@" >> "log/${1##*/}" 2>&1 & }
case $2 in
  exim) start /usr/sbin/exim4 -bdf -C "$PWD/exim.conf" -oP "$PWD/exim.pid" ;;
  postfix) LD_LIBRARY_PATH=$postfix start "$postfix/sbin/master" -d -c "$PWD" ;;
esac
[ "$2" != dovecot ] || {
  sed 's/oauthbearer//; s,/run$,&2,; s/2110/2111/; s/2995/2996/' dovecot.conf > xoauth2.conf
  start /usr/sbin/dovecot -F -c "$PWD/xoauth2.conf"
}
[ "$2" = postfix ] || start /usr/sbin/dovecot -F -c "$PWD/dovecot.conf"
wait
