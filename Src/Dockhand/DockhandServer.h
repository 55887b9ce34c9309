#ifndef DOCKHAND_DOCKHANDSERVER_H
#define DOCKHAND_DOCKHANDSERVER_H

#include <boost/shared_ptr.hpp>

#include "DockhandClient.h"
#include "Platform.h"

namespace Dockhand {

/// The service: one handler, served on local socket 9020 by a listener thread and ten workers.
class DockhandServer {
 public:
  /// Makes the handler and starts to serve. Throws if the socket cannot be made (for example because another
  /// daemon serves it) or a thread cannot be started. `platform` must live as long as the process: the
  /// detached threads outlive the server object.
  explicit DockhandServer(Platform& platform);

 private:
  boost::shared_ptr<DockhandClient> handler;
};

}  // namespace Dockhand

#endif  // DOCKHAND_DOCKHANDSERVER_H
