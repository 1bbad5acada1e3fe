// `udtlab matrix`: the command line, and nothing but.
#ifndef LAB_MATRIXCOMMAND_H
#define LAB_MATRIXCOMMAND_H

#include <memory>

namespace CLI
{
class App;
}

namespace lab
{

class CMatrixCommand
{
public:
    explicit CMatrixCommand(CLI::App& app);
    ~CMatrixCommand();

    // @return the exit code: 0 done, 2 bad options, input or output, 3 a check was broken in some cell.
    int Run();

private:
    struct tagArgs;
    std::unique_ptr<tagArgs> m_pArgs;
};

} // namespace lab

#endif
