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

CLI::App* addPasswd(CLI::App& app, Arguments& arguments) {
  CLI::App* passwd = app.add_subcommand("passwd", "Change the password, and the name with --name");
  passwd->add_option("--name", arguments.name, "New name of the account (as it is)")
      ->type_name("NAME");
  CLI::Option* oldFile = passwd
                             ->add_option("--old-file", arguments.passwords.oldFile,
                                          "Read the old password from this file's first line")
                             ->type_name("FILE");
  CLI::Option* newFile = passwd
                             ->add_option("--new-file", arguments.passwords.newFile,
                                          "Read the new password from this file's first line")
                             ->type_name("FILE");
  passwd
      ->add_flag("--stdin", arguments.passwords.fromInput,
                 "Read two lines from standard input: the old password, the new one")
      ->excludes(oldFile)
      ->excludes(newFile);
  passwd->footer("A password that no option gives is asked for on the terminal, without echo.\n");
  return passwd;
}

}  // namespace

Action setUpUser(CLI::App& app) {
  auto arguments = std::make_shared<Arguments>();
  const CLI::App* show = app.add_subcommand("show", "Print the account's name");
  const CLI::App* passwd = addPasswd(app, *arguments);
  const CLI::App* enable = app.add_subcommand("enable", "Unlock the account's password");
  app.add_subcommand("disable", "Lock the account's password");
  app.require_subcommand(1);
  return [=](const Options& options) {
    using namespace ipc::messages;
    if (show->parsed()) {
      return showName(options);
    }
    if (passwd->parsed()) {
      return changePassword(options, *arguments);
    }
    return enable->parsed() ? change<EnableUsernamePassword>(options, "Enabled.\n")
                            : change<DisableUsernamePassword>(options, "Disabled.\n");
  };
}

}  // namespace kova::ctl
