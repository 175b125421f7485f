// tarskel: the command-line tool for people. Its commands, and the frame that
// parses and runs them, are in ToolApp.cpp.

#include <sys/prctl.h>

#include "ToolApp.hpp"

int main(int argc, char** argv) {
  // The daemon's gate refuses a client any process of its user could attach to.
  ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0);
  return tarskel::tool::runTool(argc, argv);
}
