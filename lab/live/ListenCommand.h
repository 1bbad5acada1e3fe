// udtlab listen.
#ifndef LAB_LISTENCOMMAND_H
#define LAB_LISTENCOMMAND_H

#include <memory>

namespace CLI
{
class App;
}

namespace lab
{

class CListenCommand
{
public:
    explicit CListenCommand(CLI::App& app);
    ~CListenCommand();
    int Run(); // @return the exit code

private:
    struct tagArgs;
    std::unique_ptr<tagArgs> m_pArgs;
};

} // namespace lab

#endif
