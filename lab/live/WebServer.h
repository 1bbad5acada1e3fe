// The live page and the figures behind it, over HTTP.
#ifndef LAB_WEBSERVER_H
#define LAB_WEBSERVER_H

#include "RtpTypes.h"

#include <functional>
#include <memory>
#include <string>

namespace lab
{

// All of them are called on the server's own threads.
struct tagWebHooks
{
    std::function<std::string()> fnReport;  // a report of the last minutes, as one line of JSON
    std::function<std::string()> fnMetrics; // OpenMetrics text
    std::function<std::string()> fnStats;   // JSON
    // Writes a flight file. False: the text says why not, else the file's name.
    std::function<bool(std::string& strText)> fnFlight;
};

// GET / is the page, /events its reports as server-sent events twice a second, /metrics, /stats.json; POST /flight.
class CWebServer
{
public:
    explicit CWebServer(const tagWebHooks& stHooks);
    ~CWebServer();
    CWebServer(const CWebServer&) = delete;
    CWebServer& operator=(const CWebServer&) = delete;

    // wPort 0: any free one. False with one line.
    bool Start(const std::string& strAddress, uint16 wPort, std::string& strError);
    void Stop();
    uint16 Port() const;

private:
    class CImpl;
    std::unique_ptr<CImpl> m_pImpl;
};

} // namespace lab

#endif
