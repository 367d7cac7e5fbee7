#pragma once
// The whole wayfolio program behind main(), so that test builds can run it
// with other system calls in force.

namespace wayfolio {

/// Parses the arguments, runs the command, returns the exit status.
int runCommandLine(int argc, char** argv);

}  // namespace wayfolio
