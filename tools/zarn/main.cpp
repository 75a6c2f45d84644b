// main.cpp - the program zarn, with which an operator looks at and talks to the endpoints of a
// machine.
#include "CommandLine.h"

int main(int argc, char** argv) { return zarn::tool::RunCommandLine(argc, argv); }
