// tarskel: the command-line tool for people. The commands register
// themselves (see ToolCommand.hpp); the frame that parses and runs them is in
// ToolApp.cpp.

#include "ToolApp.hpp"

int main(int argc, char** argv) { return tarskel::tool::runTool(argc, argv); }
