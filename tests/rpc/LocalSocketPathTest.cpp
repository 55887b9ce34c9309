#include <gtest/gtest.h>
#include <thrift/transport/TTransportException.h>

#include <cstdlib>
#include <string>

#include "LocalSocketPath.h"

using apache::thrift::transport::TTransportException;

namespace ravel::rpc {
namespace {

class LocalSocketPath : public ::testing::Test {
 protected:
  void SetUp() override { unsetenv("RAVEL_SOCKET_DIR"); }
  void TearDown() override { unsetenv("RAVEL_SOCKET_DIR"); }
};

TEST_F(LocalSocketPath, IsTheNumberUnderRunRavel) {
  EXPECT_EQ(localSocketDirectory(), "/run/ravel");
  EXPECT_EQ(localSocketPath(9020), "/run/ravel/9020.sock");
}

TEST_F(LocalSocketPath, FollowsTheEnvironment) {
  setenv("RAVEL_SOCKET_DIR", "/tmp/elsewhere", 1);
  EXPECT_EQ(localSocketPath(9014), "/tmp/elsewhere/9014.sock");
}

TEST_F(LocalSocketPath, TakesAnEmptyVariableForNone) {
  setenv("RAVEL_SOCKET_DIR", "", 1);
  EXPECT_EQ(localSocketPath(9014), "/run/ravel/9014.sock");
}

TEST_F(LocalSocketPath, FitsIntoAnAddressUpToItsLastByte) {
  const std::string longest(sizeof(sockaddr_un::sun_path) - 1, 'x');
  EXPECT_EQ(localSocketAddress(longest).sun_path, longest);
  EXPECT_EQ(localSocketAddress(longest).sun_family, AF_UNIX);
}

TEST_F(LocalSocketPath, IsRefusedWhenTooLongInsteadOfCut) {
  const std::string tooLong(sizeof(sockaddr_un::sun_path), 'x');
  try {
    localSocketAddress(tooLong);
    FAIL() << "no exception";
  } catch (const TTransportException& error) {
    EXPECT_EQ(error.getType(), TTransportException::BAD_ARGS);
    EXPECT_EQ(error.what(), tooLong +
                                ": too long for a local socket, whose path has at most 107 bytes; set a "
                                "shorter RAVEL_SOCKET_DIR");
  }
}

}  // namespace
}  // namespace ravel::rpc
