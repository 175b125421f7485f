// tarskel: the command-line tool for people. Its commands, and the frame that
// parses and runs them, are in ToolApp.cpp.

#include "ToolApp.hpp"

int main(int argc, char** argv) { return tarskel::tool::runTool(argc, argv); }
