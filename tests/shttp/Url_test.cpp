// Url_test.cpp - urls, odd ones above all.
#include "Url.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

namespace zarn::test {
namespace {

using shttp::ParseUrl;
using shttp::Url;

struct GoodUrl {
  std::string text;
  bool tls;
  std::string host;
  int port;
  std::string target;
  std::string hostField;
};

TEST(UrlText, GoodOnesAreTakenApart) {
  const std::vector<GoodUrl> table = {
      {"http://a", false, "a", 80, "/", "a"},
      {"https://a", true, "a", 443, "/", "a"},
      {"HtTpS://Example.COM/X", true, "Example.COM", 443, "/X", "Example.COM"},
      {"http://a/", false, "a", 80, "/", "a"},
      {"http://a//", false, "a", 80, "//", "a"},
      {"http://a:80/b", false, "a", 80, "/b", "a"},
      {"https://a:80/b", true, "a", 80, "/b", "a:80"},
      {"http://a:1/b", false, "a", 1, "/b", "a:1"},
      {"http://a:65535", false, "a", 65535, "/", "a:65535"},
      {"http://a:00080/b", false, "a", 80, "/b", "a"},
      {"http://a:/b", false, "a", 80, "/b", "a"},
      {"http://127.0.0.1:8080/zarn/tcpchannel?x=1&y=%20", false, "127.0.0.1", 8080,
       "/zarn/tcpchannel?x=1&y=%20", "127.0.0.1:8080"},
      {"http://a?q", false, "a", 80, "/?q", "a"},
      {"http://a?q=http://b:1/@", false, "a", 80, "/?q=http://b:1/@", "a"},
      {"http://a#f", false, "a", 80, "/", "a"},
      {"http://a/b#f?g/h@i", false, "a", 80, "/b", "a"},
      {"http://a/b:c@d", false, "a", 80, "/b:c@d", "a"},
      {"http://a/../b/./c", false, "a", 80, "/../b/./c", "a"},
      {"http://a/\"<>\\^`{|}", false, "a", 80, "/\"<>\\^`{|}", "a"},
      {"http://a_b-c.d.:9/", false, "a_b-c.d.", 9, "/", "a_b-c.d.:9"},
      {"http://" + std::string(253, 'h') + "/", false, std::string(253, 'h'), 80, "/",
       std::string(253, 'h')},
  };
  for (const GoodUrl& one : table) {
    Url url;
    ASSERT_EQ(ParseUrl(one.text, url), 0) << one.text;
    EXPECT_EQ(url.tls, one.tls) << one.text;
    EXPECT_EQ(url.host, one.host) << one.text;
    EXPECT_EQ(url.port, one.port) << one.text;
    EXPECT_EQ(url.target, one.target) << one.text;
    EXPECT_EQ(url.hostField, one.hostField) << one.text;
  }
}

struct Bad {
  std::string text;
  int error;
};

TEST(UrlText, BadOnesAreRefusedWithTheirReason) {
  const std::vector<Bad> table = {
      {"", EINVAL},
      {"a", EINVAL},
      {"/zarn/tcpchannel", EINVAL},
      {"http", EINVAL},
      {"http:", EINVAL},
      {"http:/a", EINVAL},
      {"http://", EINVAL},
      {"http:///a", EINVAL},
      {"http://?q", EINVAL},
      {"http://#f", EINVAL},
      {"http://:80/", EINVAL},
      {"http://a:0/", EINVAL},
      {"http://a:65536/", EINVAL},
      {"http://a:000080/", EINVAL},
      {"http://a:-1/", EINVAL},
      {"http://a:+1/", EINVAL},
      {"http://a:8x/", EINVAL},
      {"http://a:80:80/", EINVAL},
      {"http://a b/", EINVAL},
      {"http://a/ b", EINVAL},
      {" http://a/", EINVAL},
      {"http://a/\r\nX-Injected: yes", EINVAL},
      {"http://a\r\nX-Injected: yes/", EINVAL},
      {"http://a/\n", EINVAL},
      {"http://a/\t", EINVAL},
      {"http://a/\x7f", EINVAL},
      {std::string("http://a/\0b", 11), EINVAL},
      {"http://a/\xc3\xa4", EINVAL},
      {"http://\xc3\xa4/", EINVAL},
      {"http://a\\b/", EINVAL},
      {"http://a%41/", EINVAL},
      {"http://a,b/", EINVAL},
      {"http://.a/", EINVAL},
      {"http://a..b/", EINVAL},
      {"http://./", EINVAL},
      {"http://user@a/", EINVAL},
      {"http://user:word@a/", EINVAL},
      {"http://a@b@c/", EINVAL},
      {"http://@a/", EINVAL},
      {"http://" + std::string(254, 'h') + "/", EINVAL},
      {"http://a/" + std::string(8192, 'x'), EINVAL},
      {"http://[::1]/", EAFNOSUPPORT},
      {"http://[", EAFNOSUPPORT},
      {"ftp://a/", EPROTONOSUPPORT},
      {"://a/", EPROTONOSUPPORT},
      {"httpx://a/", EPROTONOSUPPORT},
      {"tcp://a:1", EPROTONOSUPPORT},
  };
  for (const Bad& one : table) {
    Url url;
    EXPECT_EQ(ParseUrl(one.text, url), one.error) << one.text;
  }
}

}  // namespace
}  // namespace zarn::test
