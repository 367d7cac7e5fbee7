#include "tools/wayfolio/Commands.h"
namespace wayfolio {
void addZipCommand(CLI::App&, Invocation&) {}
}  // namespace wayfolio
