// wayfolio: the command line of the kvtrack GPS-track library.
#include "tools/wayfolio/CommandLine.h"

int main(int argc, char** argv) { return wayfolio::runCommandLine(argc, argv); }
