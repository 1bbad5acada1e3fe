// The commands of udtlab.
#ifndef LAB_COMMANDS_H
#define LAB_COMMANDS_H

namespace lab
{

// Parses the command line and runs it. @return the exit code: 0 done, 2 bad usage, input or output, 3 a check
// of the receiver's behaviour was broken.
int Main(int argc, char** argv);

} // namespace lab

#endif
