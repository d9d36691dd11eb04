#include "../Answer.h"
#include "../Command.h"
#include "../Passwords.h"
#include "../Text.h"
#include "kova/messages/Requests.h"

namespace kova::ctl {
namespace {

using ipc::messages::ChangeUsernamePassword;

struct Arguments {
  std::string name;
  PasswordSources passwords;
};

Reply askName(Client& client) {
  ChangeUsernamePassword query;
  return client.Request(query, client.Settings().answerTimeoutMs());
}

std::string nameIn(const Reply& reply) {
  const variant::Variant payload = payloadOf(reply);
  const variant::Variant* name = payload.Find("username");
  return name != nullptr ? name->ToText() : "";
}

Exit showName(const Options& options) {
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  const Reply reply = askName(client);
  if (reply.status != Exit::Ok) {
    return reply.status;
  }
  return options.json ? showJson(reply) : show(printable(nameIn(reply)) + "\n");
}

Exit changePassword(const Options& options, const Arguments& arguments) {
  Client client(options);
  if (const Exit joined = client.Join(); joined != Exit::Ok) {
    return joined;
  }
  std::string name = arguments.name;
  if (name.empty()) {
    const Reply current = askName(client);
    if (current.status != Exit::Ok) {
      return current.status;
    }
    name = nameIn(current);
  }
  Secret oldPassword;
  Secret newPassword;
  const Exit got = readPasswords(arguments.passwords, oldPassword, newPassword);
  if (got != Exit::Ok) {
    return got;
  }
  ChangeUsernamePassword request;
  request.username(name);
  request.passwordOld(oldPassword.text);
  request.passwordNew(newPassword.text);
  const Reply reply = client.Request(request, options.answerTimeoutMs(),
                                     "the old password is wrong, or the name is not acceptable");
  if (reply.status != Exit::Ok) {
    return reply.status;
  }
  return options.json ? showJson(reply) : show("Changed.\n");
}

template <typename Message>
Exit change(const Options& options, const char* done) {
  Message request;
  return askServer(options, request, done);
}

CommandLine addPasswd(CommandLine& line, Arguments& arguments) {
  CommandLine passwd = line.Subcommand("passwd", "Change the password, and the name with --name");
  passwd.Option("--name", arguments.name, "NAME", "New name of the account (as it is)");
  passwd.Option("--old-file", arguments.passwords.oldFile, "FILE",
                "Read the old password from this file's first line");
  passwd.Option("--new-file", arguments.passwords.newFile, "FILE",
                "Read the new password from this file's first line");
  passwd.Flag("--stdin", arguments.passwords.fromInput,
              "Read two lines from standard input: the old password, the new one",
              {"--old-file", "--new-file"});
  passwd.Footer("A password that no option gives is asked for on the terminal, without echo.\n");
  return passwd;
}

}  // namespace

Action setUpUser(CommandLine& line) {
  auto arguments = std::make_shared<Arguments>();
  const CommandLine show = line.Subcommand("show", "Print the account's name");
  const CommandLine passwd = addPasswd(line, *arguments);
  const CommandLine enable = line.Subcommand("enable", "Unlock the account's password");
  line.Subcommand("disable", "Lock the account's password");
  return [=](const Options& options) {
    using namespace ipc::messages;
    if (show.Given()) {
      return showName(options);
    }
    if (passwd.Given()) {
      return changePassword(options, *arguments);
    }
    return enable.Given() ? change<EnableUsernamePassword>(options, "Enabled.\n")
                          : change<DisableUsernamePassword>(options, "Disabled.\n");
  };
}

}  // namespace kova::ctl
