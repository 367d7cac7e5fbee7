#pragma once
// wayfolio devices, download and erase: GPS loggers on serial ports.
//
// The device folder (default /dev/) can be moved with the environment
// variable WAYFOLIO_DEVICE_FOLDER; tests point it at a scratch folder.

#include <CLI/CLI.hpp>

#include "tools/wayfolio/Commands.h"

namespace wayfolio {

void addDeviceCommands(CLI::App& app, Invocation& invocation);  // devices, download, erase

}  // namespace wayfolio
