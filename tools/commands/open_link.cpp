#include "tools/commands/commands.h"
#include "tools/link/attachment.h"
#include "tools/link/holder.h"

namespace bthalctl {

std::unique_ptr<HciLink> OpenLink(const Options& options) {
  std::unique_ptr<HciLink> link;
  if (!options.no_holder) link = HolderLink::Connect();
  if (link == nullptr) link = std::make_unique<Attachment>(FindService(options.wait()));
  CatchStopSignals();
  return link;
}

}  // namespace bthalctl
