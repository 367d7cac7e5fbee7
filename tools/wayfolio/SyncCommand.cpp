#include "tools/wayfolio/Commands.h"
namespace wayfolio {
void addSyncCommand(CLI::App&, Invocation&) {}
}  // namespace wayfolio
