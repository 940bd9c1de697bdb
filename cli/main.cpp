#include <iostream>

#include "cli/run.h"

int main(int argc, char** argv) { return cli::run(argc, argv, std::cout, std::cerr); }
