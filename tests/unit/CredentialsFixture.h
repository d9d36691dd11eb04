#pragma once

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <string>

#include "../PrivateRoot.h"
#include "CtlServer.h"
#include "UnitTest.h"
#include "kova/utils/File.h"

namespace kova::ctlserver {

constexpr char kAccountFile[] = "/etc/passwd";
constexpr char kOldAccounts[] = "root:*:0:0:root:/root:/bin/sh\nguest:x:1:1::/:/bin/false\n";

inline Map claim(const std::string& name, const std::string& passwordOld,
                 const std::string& passwordNew) {
  return {{"username", name}, {"passwordOld", passwordOld}, {"passwordNew", passwordNew}};
}

/// A camera whose administrator is "admin" with the password "secret"; the stored hash is
/// "old$secret". It writes the real /etc/passwd, so it must run in a private root.
class CredentialsTest : public testing::Test {
 protected:
  void SetUp() override {
    tests::requirePrivateRoot();
    fakes::reset();
    platform().config.values = {{"users.1.name", "admin"}, {"users.1.password", "old$secret"}};
    platform().accounts.hashes = {{"admin", "old$secret"}};
    before_ = accounts();
    writeAccounts(kOldAccounts);
  }

  // Other tests look users up.
  void TearDown() override { writeAccounts(before_); }

  bool change(const Map& fields) {
    ipc::messages::ChangeUsernamePassword request{Variant(fields)};
    request.NormalizeFields();
    return server_.changeUsernamePassword(request, reply_);
  }

  static void writeAccounts(const std::string& text) {
    tests::requirePrivateRoot();
    utils::File file;
    ASSERT_TRUE(file.Initialize(kAccountFile, utils::FILE_OPEN_MODE_TRUNCATE, 0) &&
                file.WriteString(text) && file.Close());
  }

  static std::string accounts() {
    std::string text;
    EXPECT_TRUE(utils::File::ReadStringAll(kAccountFile, text));
    return text;
  }

  /// The complete account file of an administrator.
  static std::string accountLine(const std::string& name, const std::string& hash) {
    return name + ":" + hash + ":0:0:Administrator:/etc/persistent:/bin/sh\n";
  }

  static std::string stored(const std::string& key) { return platform().config.values.at(key); }

  static LogLine error(const std::string& text, int code = 0) {
    return {"CtlServer", "changeUsernamePassword", LOG_ERR, code, text};
  }

  void expectFailure(const Map& fields, const std::string& text, int code = 0) {
    platform().log.clear();
    EXPECT_FALSE(change(fields));
    EXPECT_THAT(platform().log, ElementsAre(error(text, code)));
  }

  static void expectNothingWritten() {
    EXPECT_THAT(platform().journal, Not(Contains(StartsWith("set "))));
    EXPECT_THAT(platform().journal, Not(Contains(StartsWith("close"))));
    EXPECT_EQ(accounts(), kOldAccounts);
  }

  variant::CameraInfo info_;
  CtlServer server_{info_};
  Variant reply_;

 private:
  std::string before_;
};

}  // namespace kova::ctlserver
