#include "tarskel/daemon/Tarskeld.hpp"

int main(int argc, char** argv) { return tarskel::Tarskeld::main(argc, argv); }
