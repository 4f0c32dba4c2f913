#!/bin/sh
# Starts mail servers for the account "anna", "geheim 1", in the folder that it is called in.
#
#   start.sh ADDRESS exim|postfix|dovecot ...
set -e
trap 'trap "" TERM; kill 0' TERM EXIT
here=$(dirname "$0")
address=$1
shift
mkdir -p box data log sasl mail/new mail/cur mail/tmp spool
(cd spool && mkdir active bounce defer deferred incoming pid private public)

skip() { echo "skipped: $1"; exit 77; }
[ "$(id -u)" = 0 ] || skip "only root can start mail servers"
# Debian's Postfix cannot be installed beside Exim: its package is unpacked, once.
postfix=$here/../../build/postfix
if [ "$1" = postfix ] && [ ! -d "$postfix" ]; then
  apt-get -o APT::Sandbox::User=root download postfix && dpkg -x postfix_*.deb unpacked &&
    mv unpacked "$postfix" || skip "the package of Postfix cannot be had"
fi
postfix=$postfix/usr/lib/postfix
for name in exim.conf main.cf master.cf dovecot.conf; do
  sed "s,@folder@,$PWD,; s,@address@,$address,; s,@postfix@,$postfix," "$here/$name" > "$name"
done

certify() {
  names=$1
  shift
  openssl req -x509 -key key.pem -subj "/CN=$1" -addext "subjectAltName=$names" -out "$@"
}
openssl ecparam -name prime256v1 -genkey -noout -out key.pem
certify "IP:$address" server.pem
certify DNS:elsewhere.example elsewhere.pem
certify "IP:$address" issued.pem -CA server.pem -CAkey key.pem
openssl x509 -in server.pem -signkey key.pem -days 0 -out expired.pem
echo 'geheim 1' > right
echo falsch > wrong
echo 'anna:{PLAIN}geheim 1' > passwords
printf 'geheim 1' | saslpasswd2 -p -c -f db -u test.example anna || skip "needs saslpasswd2"
printf 'auxprop_plugin: sasldb\nsasldb_path: %s/db\n' "$PWD" > sasl/smtpd.conf
head -c 400000 /dev/urandom > large.pdf
touch log/dovecot
chmod -R 777 .
chmod 600 right wrong
chmod 644 ./*.c*f

start() { command -v "$1" > log/found || skip "needs $1"; "$@" > "log/$name.out" 2>&1 & }
for name; do
  case $name in
    exim) start /usr/sbin/exim4 -bdf -C "$PWD/exim.conf" -oP "$PWD/exim.pid" ;;
    postfix) LD_LIBRARY_PATH=$postfix start "$postfix/sbin/master" -d -c "$PWD" ;;
    dovecot) start /usr/sbin/dovecot -F -c "$PWD/dovecot.conf" ;;
  esac
done
wait
