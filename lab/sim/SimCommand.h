// `udtlab simulate`: the command line, and nothing but.
#ifndef LAB_SIMCOMMAND_H
#define LAB_SIMCOMMAND_H

#include <memory>

namespace CLI
{
class App;
}

namespace lab
{

class CSimCommand
{
public:
    explicit CSimCommand(CLI::App& app);
    ~CSimCommand();

    // @return the exit code: 0 done, 2 bad options, input or output, 3 a check was broken.
    int Run();

private:
    struct tagArgs;
    std::unique_ptr<tagArgs> m_pArgs;
};

} // namespace lab

#endif
