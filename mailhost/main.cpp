// tavmail-host - a practice mail server for whoever builds a device or a script and has no server
// at hand. It takes mail over SMTP, keeps it as files, hands it out over POP3, shows the dialogue
// live, and misbehaves on demand.

#include <openssl/rand.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>

#include "added_mail.h"
#include "display.h"
#include "maildir.h"
#include "md5.h"
#include "options.h"
#include "problem.h"
#include "server.h"
#include "text.h"

namespace {

using namespace mailhost;
namespace fs = std::filesystem;

// The folder of the mails; without a name a private one, which goes with the object.
class mail_folder {
 public:
  explicit mail_folder(const std::string& name) : m_path(name), m_isPrivate(name.empty()) {
    if (!m_isPrivate) return;
    std::string pattern = fs::temp_directory_path() / "tavmail-host-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
      throw problem(EX_CANTCREAT, "cannot make the folder " + pattern);
    m_path = pattern;
  }
  ~mail_folder() {
    std::error_code ignored;
    if (m_isPrivate) fs::remove_all(m_path, ignored);
  }
  mail_folder(const mail_folder&) = delete;
  mail_folder& operator=(const mail_folder&) = delete;

  const fs::path& path() const { return m_path; }
  bool is_private() const { return m_isPrivate; }

 private:
  fs::path m_path;
  bool m_isPrivate;
};

std::string nonce() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof bytes) != 1) throw problem(EX_OSERR, "no random numbers");
  return hex({reinterpret_cast<const char*>(bytes), sizeof bytes});
}

maildir maildir_in(const fs::path& folder) {
  try {
    return maildir(folder);
  } catch (const fs::filesystem_error& error) {
    throw problem(EX_CANTCREAT,
                  "cannot make --folder " + folder.string() + ": " + error.code().message());
  }
}

settings settings_of(const options& given) {
  settings made;
  if (!given.names.empty()) made.name = given.names[0];
  made.offers_tls = true;
  for (const std::string& user : given.users) {
    const size_t colon = user.find(':');
    made.users[user.substr(0, colon)] = user.substr(colon + 1);
  }
  for (const std::string& user : given.tokens) {
    const size_t colon = user.find(':');
    made.tokens[user.substr(0, colon)] = user.substr(colon + 1);
  }
  made.methods.clear();
  made.offers_apop = false;
  for (const std::string& method : given.methods) {
    if (method == "APOP")
      made.offers_apop = true;
    else
      made.methods.push_back(method);
  }
  made.login_required = given.login_required;
  made.pop_before_smtp = given.pop_before_smtp;
  made.size_limit = static_cast<size_t>(given.size_limit);
  made.keeps_records = false;
  made.seconds = [] {
    const auto now = connection::clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
  };
  made.nonce = nonce;
  return made;
}

void read_script(mail_host& host, const std::string& path) {
  if (path.empty()) return;
  const auto text = read_file(path);
  if (!text) throw problem(EX_NOINPUT, "cannot read " + path);
  try {
    host.script.add(*text);
  } catch (const script_error& error) {
    throw problem(EX_DATAERR, path + ": " + error.what());
  }
}

tls_context certificate_of(const options& given) {
  if (!given.cert.empty()) return tls_context(given.cert, given.key);
  std::vector<std::string> names = given.names;
  for (const char* own : {"localhost", "127.0.0.1", "::1"}) names.emplace_back(own);
  const identity made = make_identity(names, given.fault);
  if (!given.ca_out.empty() && !write_file(given.ca_out, to_pem(made.authority.get())))
    throw problem(EX_CANTCREAT, "cannot write " + given.ca_out);
  return tls_context(made);
}

entrance open_ports(server& doors, const options& given) {
  entrance where;
  where.address = given.listen;
  const auto open = [&](const char* name, uint16_t port, protocol speaks, bool tls_first) {
    where.ports.emplace_back(name, doors.listen(given.listen, port, speaks, tls_first));
  };
  try {
    open("smtp", given.smtp, protocol::smtp, false);
    open("smtps", given.smtps, protocol::smtp, true);
    open("pop3", given.pop3, protocol::pop3, false);
    open("pop3s", given.pop3s, protocol::pop3, true);
  } catch (const std::runtime_error& error) {
    throw problem(EX_UNAVAILABLE, error.what());
  }
  return where;
}

// Renamed into place, so that a script that waits for the file never reads half of it.
void write_ready_file(const std::string& path, const entrance& where) {
  if (path.empty()) return;
  std::string text;
  for (const auto& [name, port] : where.ports) text += name + "=" + std::to_string(port) + "\n";
  const std::string fresh = path + ".new";
  if (write_file(fresh, text) && std::rename(fresh.c_str(), path.c_str()) == 0) return;
  unlink(fresh.c_str());
  throw problem(EX_CANTCREAT, "cannot write " + path);
}

// Readable when a signal asks the program to end.
file_descriptor signals_to_end() {
  sigset_t set;
  sigemptyset(&set);
  for (const int kind : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set, kind);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);
  return file_descriptor(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

void run(const options& given) {
  const file_descriptor stop = signals_to_end();
  unlink(given.ready_file.c_str());  // that of a former run
  const mail_folder folder(given.folder);
  maildir mails = maildir_in(folder.path());
  for (const std::string& argument : given.add) {
    mail added;
    added.data = added_mail(argument);
    if (!mails.keep(added)) throw problem(EX_CANTCREAT, "cannot keep " + argument);
  }

  display screen(given.json);
  mail_host host(settings_of(given), &mails);
  read_script(host, given.script);
  host.on_event = [&](const event& what) { screen.show(what); };
  const tls_context tls = certificate_of(given);
  server doors(host, tls, {});
  entrance where = open_ports(doors, given);
  for (const auto& [name, password] : host.given().users) where.users.push_back(name);
  where.folder = folder.path();
  where.is_private = folder.is_private();
  screen.show(where);
  write_ready_file(given.ready_file, where);

  const auto life = std::chrono::seconds(given.max_seconds != 0 ? given.max_seconds : 1000000000);
  doors.run(stop.get(), connection::clock::now() + life);
}

int fail(int code, const std::string& what) {
  std::fprintf(stderr, "tavmail-host: %s\n", what.c_str());
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (const auto given = parse(argc, argv)) run(*given);
    return EX_OK;
  } catch (const problem& cause) {
    return fail(cause.exit_code, cause.what());
  } catch (const std::exception& cause) {
    return fail(EX_OSERR, cause.what());
  }
}
