// `udtlab report`: pages from reports that were written before.
#ifndef LAB_REPORTCOMMAND_H
#define LAB_REPORTCOMMAND_H

#include <memory>

namespace CLI
{
class App;
}

namespace lab
{

class CReportCommand
{
public:
    explicit CReportCommand(CLI::App& app);
    ~CReportCommand();

    // @return the exit code: 0 done, 2 bad options, input or output.
    int Run();

private:
    struct tagArgs;
    std::unique_ptr<tagArgs> m_pArgs;
};

} // namespace lab

#endif
