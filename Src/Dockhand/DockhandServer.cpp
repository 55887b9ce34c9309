#include "DockhandServer.h"

#include "ModuleLog.h"
#include "TUnixServerSocket.h"
#include "thrift_server.h"
#include "usb_rpc_gen_.h"

namespace Dockhand {

namespace {

const ModuleLog serverLog{TlogContext::GetLogContext("Dockhand.UsbServer", "Src/Dockhand/DockhandServer", 5),
                          "Src/Dockhand/DockhandServer"};

using RpcServer = ravel::rpc::thrift_server<ravel::rpc::usb_rpc_gen_If, ravel::rpc::usb_rpc_gen_Processor,
                                            9020, 10, ravel::rpc::TUnixServerSocket>;

}  // namespace

DockhandServer::DockhandServer(Platform& platform) {
  serverLog.trace(11, "Before creating DockhandClient");
  handler.reset(new DockhandClient(platform));
  serverLog.trace(13, "After creating DockhandClient");

  RpcServer rpcServer(handler);
  serverLog.trace(15, "Before starting rpcServer.start");
  rpcServer.start();
  serverLog.trace(17, "After starting rpcServer.start");
}

}  // namespace Dockhand
