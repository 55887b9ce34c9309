// Clients that connect and stay. Each holds one of the ten workers, even if it sends nothing.

#include <poll.h>

#include <memory>
#include <vector>

#include "HostileTest.h"
#include "TUnixSocket.h"
#include "Wire.h"

namespace hostiletest {
namespace {

class IdleClientsTest : public HostileTest {
 protected:
  using Connections = std::vector<std::unique_ptr<ravel::rpc::TUnixSocket>>;

  /// Ten connections, each with a worker. Each sends `text`.
  static Connections tenThatSay(const Daemon& daemon, const std::string& text) {
    Connections ten;
    for (int i = 0; i < 10; ++i) {
      ten.push_back(std::make_unique<ravel::rpc::TUnixSocket>("localhost", 9020));
      ten.back()->open();
      ten.back()->write(reinterpret_cast<const std::uint8_t*>(text.data()),
                        static_cast<std::uint32_t>(text.size()));
    }
    expectConnections(daemon, 10);
    return ten;
  }

  static void expectEleventhToWaitForOneToLeave(Connections ten) {
    ravel::rpc::TUnixSocket eleventh("localhost", 9020);
    eleventh.open();
    const std::string call = goodCall();
    eleventh.write(reinterpret_cast<const std::uint8_t*>(call.data()),
                   static_cast<std::uint32_t>(call.size()));
    pollfd answer{eleventh.getSocketFD(), POLLIN, 0};
    constexpr int aWhile = 200;
    EXPECT_EQ(poll(&answer, 1, aWhile), 0) << "the eleventh has an answer";
    ten.pop_back();
    constexpr int patience = 60000;
    EXPECT_EQ(poll(&answer, 1, patience), 1) << "the eleventh has no answer";
  }
};

TEST_F(IdleClientsTest, HoldTheTenWorkersUntilOneLeaves) {
  const Daemon daemon;
  expectEleventhToWaitForOneToLeave(tenThatSay(daemon, ""));
  expectSound(daemon);
}

TEST_F(IdleClientsTest, HoldTheTenWorkersWithHalfAMessageEach) {
  const Daemon daemon;
  const std::string call = goodCall();
  expectEleventhToWaitForOneToLeave(tenThatSay(daemon, call.substr(0, call.size() / 2)));
  expectSound(daemon);
}

}  // namespace
}  // namespace hostiletest
