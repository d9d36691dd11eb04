#include "Remote.h"

#include <gtest/gtest.h>

namespace kova::ctl {
namespace {

struct Form {
  const char* text;
  const char* login;
  const char* port;
};

TEST(Remote, FormsAreUnderstood) {
  const Form forms[] = {
      {"cam", "cam", ""},          {"root@cam-1.example", "root@cam-1.example", ""},
      {"cam:2222", "cam", "2222"}, {"a.b_c-d+e@10.0.0.5:65535", "a.b_c-d+e@10.0.0.5", "65535"},
      {"[::1]", "::1", ""},        {"root@[fe80::1%eth0]:22", "root@fe80::1%eth0", "22"},
  };
  for (const Form& form : forms) {
    Remote remote;
    std::string error;
    EXPECT_TRUE(parseRemote(form.text, remote, error)) << form.text << error;
    EXPECT_EQ(remote.login, form.login);
    EXPECT_EQ(remote.port, form.port);
  }
}

TEST(Remote, OtherTextIsRefused) {
  const std::string texts[] = {"",
                               "@",
                               "root@",
                               "@cam",
                               "-oProxyCommand=id",
                               "root@-cam",
                               "-l@cam",
                               "cam:",
                               "cam:0",
                               "cam:65536",
                               "cam:+22",
                               "cam:22x",
                               "::1",
                               "[::1",
                               "[]",
                               "[-x]",
                               "[::1]x",
                               "[::1]:",
                               "a b",
                               "cam;id",
                               "cam\nx",
                               "$(id)@cam",
                               "cam`id`",
                               "c\xc3\xa4m",
                               "a@b@c",
                               "root@[::1",
                               "[::1];:22",
                               "cam/x",
                               std::string(256, 'a')};
  for (const std::string& text : texts) {
    Remote remote{"as before", ""};
    std::string error;
    EXPECT_FALSE(parseRemote(text, remote, error)) << text;
    EXPECT_EQ(remote.login, "as before") << text;
    EXPECT_EQ(error.find("\"" + text + "\" is not a host: write [USER@]HOST[:PORT]"), 0U) << error;
  }
}

TEST(Remote, SshGetsNoOtherOptions) {
  using Words = std::vector<std::string>;
  EXPECT_EQ(sshWords({"root@cam", ""}, {"bridge"}),
            (Words{"ssh", "-xT", "--", "root@cam", "kovactl", "bridge"}));
  EXPECT_EQ(sshWords({"cam", "2222"}, {"timezones", "a b", "it's", "-x", "$x", ""}),
            (Words{"ssh", "-xT", "-p", "2222", "--", "cam", "kovactl", "timezones", "'a b'",
                   "'it'\\''s'", "'-x'", "'$x'", "''"}));
}

TEST(Remote, AddressIsEscaped) {
  EXPECT_EQ(remoteBusAddress("a+b@[fe80::1%eth0]:22"),
            "unixexec:path=/proc/self/exe,argv1=--host,"
            "argv2=a%2bb%40%5bfe80%3a%3a1%25eth0%5d%3a22,argv3=__ssh");
}

}  // namespace
}  // namespace kova::ctl
