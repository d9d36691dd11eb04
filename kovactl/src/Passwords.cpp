#include "Passwords.h"

#include <string.h>

#include <cerrno>
#include <cstring>

#include "StopSignals.h"
#include "Terminal.h"
#include "kova/utils/File.h"

namespace kova::ctl {
namespace {

Exit readFile(const std::string& path, std::string& password) {
  std::string content;
  if (!utils::File::ReadStringAll(path, content)) {
    return fail(Exit::Local, "cannot read " + path + ": " + std::strerror(errno));
  }
  password = content.substr(0, content.find('\n'));
  explicit_bzero(content.data(), content.size());
  return Exit::Ok;
}

Exit prompt(const char* text, std::string& password) {
  if (askSecret(text, password)) {
    return Exit::Ok;
  }
  if (stopRequested()) {
    return stopStatus();
  }
  return inputIsTerminal()
             ? fail(Exit::Local, "no password was typed")
             : fail(Exit::Usage,
                    "no terminal to ask on: give --stdin, or --old-file and --new-file");
}

Exit promptTwice(std::string& password) {
  if (const Exit first = prompt("New password: ", password); first != Exit::Ok) {
    return first;
  }
  Secret again;
  if (const Exit second = prompt("New password again: ", again.text); second != Exit::Ok) {
    return second;
  }
  return again.text == password ? Exit::Ok : fail(Exit::Local, "the two new passwords differ");
}

Exit readInput(std::string& oldPassword, std::string& newPassword) {
  if (readLine(oldPassword) && readLine(newPassword)) {
    return Exit::Ok;
  }
  return stopRequested()
             ? stopStatus()
             : fail(Exit::Usage, "--stdin needs two lines: the old password and the new one");
}

Exit check(const char* which, const std::string& password) {
  constexpr std::size_t kLongest = 64;
  if (password.empty()) {
    return fail(Exit::Usage, std::string("the ") + which + " password is empty");
  }
  return password.size() <= kLongest
             ? Exit::Ok
             : fail(Exit::Usage, std::string("the ") + which + " password is longer than 64 bytes");
}

Exit collect(const PasswordSources& sources, std::string& oldPassword, std::string& newPassword) {
  if (sources.fromInput) {
    return readInput(oldPassword, newPassword);
  }
  const Exit old = sources.oldFile.empty() ? prompt("Old password: ", oldPassword)
                                           : readFile(sources.oldFile, oldPassword);
  if (old != Exit::Ok) {
    return old;
  }
  return sources.newFile.empty() ? promptTwice(newPassword)
                                 : readFile(sources.newFile, newPassword);
}

}  // namespace

Secret::~Secret() {
  explicit_bzero(text.data(), text.size());
}

Exit readPasswords(const PasswordSources& sources, Secret& oldPassword, Secret& newPassword) {
  if (const Exit got = collect(sources, oldPassword.text, newPassword.text); got != Exit::Ok) {
    return got;
  }
  const Exit old = check("old", oldPassword.text);
  return old != Exit::Ok ? old : check("new", newPassword.text);
}

}  // namespace kova::ctl
