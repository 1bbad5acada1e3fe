#include "Commands.h"

int main(int argc, char** argv) { return lab::Main(argc, argv); }
