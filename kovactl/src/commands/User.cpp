#include <algorithm>
#include <cerrno>
#include <cstring>

#include "../Client.h"
#include "../Command.h"
#include "../Output.h"
#include "../Terminal.h"
#include "../Text.h"
#include "kova/messages/Requests.h"
#include "kova/utils/File.h"
#include "kova/utils/Secret.h"

namespace kova::ctl {
namespace {

using ipc::messages::ChangeUsernamePassword;
using utils::Secret;

// The sources of the passwords; the default is to prompt. Not the command line, which every process
// can read.
struct PasswordSources {
  std::string oldFile;     ///< its first line is the old password
  std::string newFile;     ///< its first line is the new password
  bool fromInput = false;  ///< two lines of standard input: old, new
};

ExitStatus readFile(const std::string& path, std::string& password) {
  std::string content;
  if (!utils::File::ReadStringAll(path, content)) {
    return fail(ExitStatus::Local, "cannot read " + path + ": " + std::strerror(errno));
  }
  password = content.substr(0, content.find('\n'));
  explicit_bzero(content.data(), content.size());
  return ExitStatus::Ok;
}

ExitStatus prompt(const char* text, std::string& password) {
  if (askSecret(text, password)) {
    return ExitStatus::Ok;
  }
  if (stopRequested()) {
    return stopStatus();
  }
  return inputIsTerminal()
             ? fail(ExitStatus::Local, "no password entered")
             : fail(ExitStatus::Usage,
                    "no terminal to prompt on: use --stdin, or --old-file and --new-file");
}

ExitStatus promptTwice(std::string& password) {
  if (const ExitStatus first = prompt("New password: ", password); first != ExitStatus::Ok) {
    return first;
  }
  Secret again;
  if (const ExitStatus second = prompt("New password again: ", again.text);
      second != ExitStatus::Ok) {
    return second;
  }
  return again.text == password
             ? ExitStatus::Ok
             : fail(ExitStatus::Local, "the two new passwords differ: nothing was changed");
}

ExitStatus readInput(std::string& oldPassword, std::string& newPassword) {
  if (readLine(oldPassword) && readLine(newPassword)) {
    return ExitStatus::Ok;
  }
  return stopRequested()
             ? stopStatus()
             : fail(ExitStatus::Usage, "--stdin needs two lines: the old password and the new one");
}

ExitStatus check(const char* which, const std::string& password) {
  constexpr std::size_t kLongest = 64;
  if (password.empty()) {
    return fail(ExitStatus::Usage, std::string("the ") + which + " password is empty");
  }
  return password.size() <= kLongest
             ? ExitStatus::Ok
             : fail(ExitStatus::Usage,
                    std::string("the ") + which + " password is longer than 64 bytes");
}

ExitStatus collect(const PasswordSources& sources, std::string& oldPassword,
                   std::string& newPassword) {
  if (sources.fromInput) {
    return readInput(oldPassword, newPassword);
  }
  const ExitStatus old = sources.oldFile.empty() ? prompt("Old password: ", oldPassword)
                                                 : readFile(sources.oldFile, oldPassword);
  if (old != ExitStatus::Ok) {
    return old;
  }
  return sources.newFile.empty() ? promptTwice(newPassword)
                                 : readFile(sources.newFile, newPassword);
}

ExitStatus readPasswords(const PasswordSources& sources, Secret& oldPassword, Secret& newPassword) {
  if (const ExitStatus got = collect(sources, oldPassword.text, newPassword.text);
      got != ExitStatus::Ok) {
    return got;
  }
  const ExitStatus old = check("old", oldPassword.text);
  return old != ExitStatus::Ok ? old : check("new", newPassword.text);
}

struct PasswordArguments {
  std::string name;
  PasswordSources passwords;
};

Reply askName(Client& client) {
  ChangeUsernamePassword query;
  return client.request(query, client.options().answerTimeoutMs());
}

std::string nameIn(const Reply& reply) {
  const variant::Variant payload = payloadOf(reply);
  const variant::Variant* name = payload.find("username");
  return name != nullptr ? name->toText() : "";
}

ExitStatus showName(const Options& options) {
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  const Reply reply = askName(client);
  if (reply.status != ExitStatus::Ok) {
    return reply.status;
  }
  return present(options, payloadOf(reply), printable(nameIn(reply)) + "\n");
}

// The account names that the camera accepts.
bool isAccountName(const std::string& name) {
  constexpr std::string_view kFirst = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz_";
  constexpr std::size_t kLongest = 32;
  const auto isAllowed = [&](char c) {
    return kFirst.find(c) != kFirst.npos || (c >= '0' && c <= '9') || c == '.' || c == '-';
  };
  return !name.empty() && name.size() <= kLongest && kFirst.find(name.front()) != kFirst.npos &&
         std::ranges::all_of(name, isAllowed);
}

ExitStatus changePassword(const Options& options, const PasswordArguments& arguments) {
  if (!arguments.name.empty() && !isAccountName(arguments.name)) {
    return fail(
        ExitStatus::Usage,
        "--name: \"" + arguments.name +
            "\" is not a name: write at most 32 letters, digits, \"_\", \".\" and \"-\", of "
            "which the first is a letter or \"_\"");
  }
  Client client(options);
  if (const ExitStatus joined = client.join(); joined != ExitStatus::Ok) {
    return joined;
  }
  std::string name = arguments.name;
  if (name.empty()) {
    const Reply current = askName(client);
    if (current.status != ExitStatus::Ok) {
      return current.status;
    }
    name = nameIn(current);
  }
  Secret oldPassword;
  Secret newPassword;
  const ExitStatus got = readPasswords(arguments.passwords, oldPassword, newPassword);
  if (got != ExitStatus::Ok) {
    return got;
  }
  ChangeUsernamePassword request;
  request.username(name);
  request.passwordOld(oldPassword.text);
  request.passwordNew(newPassword.text);
  const Reply reply =
      client.request(request, options.answerTimeoutMs(),
                     "the old password is wrong; if it is not, see the camera's log");
  if (reply.status != ExitStatus::Ok) {
    return reply.status;
  }
  return present(options, payloadOf(reply), "Changed.\n");
}

template <typename Message>
ExitStatus change(const Options& options, const char* done) {
  Message request;
  return requestFromServer(options, request, done);
}

CommandLine addPasswd(CommandLine& line, PasswordArguments& arguments) {
  CommandLine passwd = line.subcommand("passwd", "Change the password, and the name with --name");
  passwd.option("--name", arguments.name, "NAME", "New name of the account (unchanged)");
  passwd.option("--old-file", arguments.passwords.oldFile, "FILE",
                "Read the old password from the first line of a file");
  passwd.option("--new-file", arguments.passwords.newFile, "FILE",
                "Read the new password from the first line of a file");
  passwd.flag("--stdin", arguments.passwords.fromInput,
              "Read the old and the new password from two lines of standard input",
              {"--old-file", "--new-file"});
  passwd.footer("Prompts on the terminal, without echo, for passwords that no option provides.");
  return passwd;
}

}  // namespace

Action setUpUser(CommandLine& line) {
  auto arguments = std::make_shared<PasswordArguments>();
  const CommandLine show = line.subcommand("show", "Print the account's name");
  const CommandLine passwd = addPasswd(line, *arguments);
  const CommandLine enable = line.subcommand("enable", "Unlock the account's password");
  line.subcommand("disable", "Lock the account's password");
  return [=](const Options& options) {
    using namespace ipc::messages;
    if (show.given()) {
      return showName(options);
    }
    if (passwd.given()) {
      return changePassword(options, *arguments);
    }
    return enable.given() ? change<EnableUsernamePassword>(options, "Enabled.\n")
                          : change<DisableUsernamePassword>(options, "Disabled.\n");
  };
}

}  // namespace kova::ctl
