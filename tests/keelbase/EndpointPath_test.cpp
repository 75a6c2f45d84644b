// EndpointPath_test.cpp - endpoint paths, and as what sockets take them.
#include "keelbase/internal/EndpointPath.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "TempRoot.h"

namespace keelbase::internal {
namespace {

TEST(EndpointPath, IsSplitAtItsLastSlash) {
  EXPECT_EQ(EndpointPath("/a/b/1_2").directory, "/a/b");
  EXPECT_EQ(EndpointPath("/a/b/1_2").name, "1_2");
  EXPECT_EQ(EndpointPath("1_2").directory, ".");
  EXPECT_EQ(EndpointPath("1_2").name, "1_2");
  EXPECT_EQ(EndpointPath("/1_2").directory, "/");
  EXPECT_EQ(EndpointPath("/1_2").name, "1_2");
}

TEST(EndpointPath, PathsWithoutAFileNameNameNoEndpoint) {
  for (const std::string& path :
       {std::string(), std::string("/"), std::string("/a/"), std::string("."), std::string(".."),
        std::string("/a/."), std::string("/a/.."), std::string("/a/b\0c", 6),
        std::string("/a\0b/c", 6)})
    EXPECT_EQ(EndpointPath(path).name, "") << path;
}

TEST(EndpointAddress, ShortPathIsUsedAsItIs) {
  EndpointAddress address;
  ASSERT_EQ(address.Resolve(EndpointPath("/no/such/1_2")), 0);
  EXPECT_STREQ(address.Get()->sa_data, "/no/such/1_2");
}

TEST(EndpointAddress, LongPathNeedsItsDirectory) {
  EndpointAddress address;
  EXPECT_EQ(address.Resolve(EndpointPath("/" + std::string(150, 'x') + "/1_2")), ENOENT);
  const zarn::test::TempDir dir;
  EXPECT_EQ(address.Resolve(EndpointPath(dir.GetPath() + "/" + std::string(120, 'n'))),
            ENAMETOOLONG);
  EXPECT_EQ(address.Resolve(EndpointPath("")), EINVAL);
}

}  // namespace
}  // namespace keelbase::internal
