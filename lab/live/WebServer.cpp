// cpp-httplib does HTTP. One thread makes reports while somebody listens; each listener's thread waits for the next.
#include "WebServer.h"

#include "ReportPage.h"
#include "UdtStats.h"

#include <fmt/format.h>
#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace lab
{

namespace
{

constexpr std::chrono::milliseconds c_tEvery(500);
constexpr size_t c_nThreads = 16; // every open page keeps one

} // namespace

class CWebServer::CImpl
{
public:
    explicit CImpl(const tagWebHooks& stHooks) : m_stHooks(stHooks)
    {
        m_server.new_task_queue = []() { return new httplib::ThreadPool(c_nThreads); };
        // An address that is taken is an error here, not one to be shared.
        m_server.set_socket_options(
            [](socket_t sock)
            {
                const int nYes = 1;
                setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &nYes, sizeof(nYes));
            });
        m_server.set_default_headers({{"Cache-Control", "no-store"}, {"X-Content-Type-Options", "nosniff"}});
        m_server.Get("/", [](const httplib::Request&, httplib::Response& res)
                     { res.set_content(RenderLivePage(), "text/html; charset=utf-8"); });
        m_server.Get("/events",
                     [this](const httplib::Request&, httplib::Response& res)
                     {
                         auto pullSeen = std::make_shared<uint64>(0);
                         res.set_chunked_content_provider("text/event-stream",
                                                          [this, pullSeen](size_t, httplib::DataSink& sink)
                                                          { return SendNext(*pullSeen, sink); });
                     });
        m_server.Get("/metrics", [this](const httplib::Request&, httplib::Response& res)
                     { res.set_content(m_stHooks.fnMetrics(), c_pszUdtOpenMetricsType); });
        m_server.Get("/stats.json", [this](const httplib::Request&, httplib::Response& res)
                     { res.set_content(m_stHooks.fnStats(), "application/json"); });
        m_server.Post("/flight",
                      [this](const httplib::Request& req, httplib::Response& res) { Flight(req, res); });
    }

    ~CImpl() { Stop(); }

    bool Start(const std::string& strAddress, uint16 wPort, std::string& strError)
    {
        m_nPort = wPort;
        const bool bBound = wPort == 0 ? (m_nPort = m_server.bind_to_any_port(strAddress)) > 0
                                       : m_server.bind_to_port(strAddress, wPort);
        if (!bBound)
        {
            strError = fmt::format("web {}:{}: cannot be listened on: {}", strAddress, wPort,
                                   errno ? strerror(errno) : "no such address");
            return false;
        }
        m_threadServer = std::thread([this]() { m_server.listen_after_bind(); });
        m_threadReports = std::thread([this]() { MakeReports(); });
        return true;
    }

    void Stop()
    {
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_bEnd = true;
        }
        m_cv.notify_all();
        m_server.stop();
        if (m_threadServer.joinable())
            m_threadServer.join();
        if (m_threadReports.joinable())
            m_threadReports.join();
    }

    uint16 Port() const { return (uint16)m_nPort; }

private:
    void MakeReports()
    {
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_bEnd)
        {
            m_cv.wait_for(lock, c_tEvery, [this]() { return m_bEnd; });
            if (m_bEnd || m_nListening == 0)
                continue;
            lock.unlock();
            auto pReport = std::make_shared<const std::string>("data: " + m_stHooks.fnReport() + "\n\n");
            lock.lock();
            m_pReport = std::move(pReport);
            m_ullReports++;
            m_cv.notify_all();
        }
    }

    bool SendNext(uint64& ullSeen, httplib::DataSink& sink)
    {
        std::shared_ptr<const std::string> pReport;
        {
            std::unique_lock<std::mutex> lock(m_lock);
            m_nListening++;
            m_cv.wait_for(lock, std::chrono::seconds(5), [&]() { return m_bEnd || m_ullReports > ullSeen; });
            m_nListening--;
            if (m_bEnd)
            {
                lock.unlock();
                sink.done();
                return true;
            }
            pReport = m_ullReports > ullSeen ? m_pReport : nullptr;
            ullSeen = m_ullReports;
        }
        static const std::string s_strNothing =
            ":\n\n"; // a comment; shows whether the listener is still there
        const std::string& str = pReport ? *pReport : s_strNothing;
        return sink.write(str.data(), str.size());
    }

    // A page of somewhere else must not make this machine write files.
    void Flight(const httplib::Request& req, httplib::Response& res)
    {
        const std::string strOrigin = req.get_header_value("Origin");
        if (!strOrigin.empty() && strOrigin != "http://" + req.get_header_value("Host"))
        {
            res.status = 403;
            res.set_content("not from this page\n", "text/plain");
            return;
        }
        std::string strText;
        if (!m_stHooks.fnFlight || !m_stHooks.fnFlight(strText))
        {
            res.status = 503;
            if (strText.empty())
                strText = "nothing is recorded";
        }
        res.set_content(strText + "\n", "text/plain; charset=utf-8");
    }

    const tagWebHooks m_stHooks;
    httplib::Server m_server;
    int m_nPort = 0;
    std::thread m_threadServer;
    std::thread m_threadReports;
    std::mutex m_lock; // guards what follows
    std::condition_variable m_cv;
    bool m_bEnd = false;
    uint32 m_nListening = 0;
    uint64 m_ullReports = 0;
    std::shared_ptr<const std::string> m_pReport;
};

CWebServer::CWebServer(const tagWebHooks& stHooks) : m_pImpl(std::make_unique<CImpl>(stHooks)) {}
CWebServer::~CWebServer() = default;
bool CWebServer::Start(const std::string& strAddress, uint16 wPort, std::string& strError)
{
    return m_pImpl->Start(strAddress, wPort, strError);
}
void CWebServer::Stop() { m_pImpl->Stop(); }
uint16 CWebServer::Port() const { return m_pImpl->Port(); }

} // namespace lab
