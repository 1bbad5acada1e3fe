// What the live tests share: children, free ports, runs of the program.
#ifndef LIVE_PEERS_H
#define LIVE_PEERS_H

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace live
{

inline std::string ReadText(const std::string& strPath)
{
    std::ifstream in(strPath, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// A folder of its own, gone with the test.
class CFolder
{
public:
    CFolder()
    {
        char szPath[] = "/tmp/udtlab-live-XXXXXX";
        m_strPath = mkdtemp(szPath) != nullptr ? szPath : "/tmp";
    }
    ~CFolder()
    {
        if (m_strPath != "/tmp" && std::system(("rm -rf " + m_strPath).c_str()) != 0)
            ADD_FAILURE() << m_strPath << " stays behind";
    }
    std::string operator/(const std::string& strName) const { return m_strPath + "/" + strName; }

private:
    std::string m_strPath;
};

// A command of the shell, in its own process; its output goes to a file.
class CChild
{
public:
    CChild(const std::string& strCommand, const std::string& strOut)
    {
        // Emptied before the child exists: nobody reads what an earlier one said.
        const int nFd = open(strOut.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        m_nPid = fork();
        if (m_nPid != 0)
        {
            close(nFd);
            return;
        }
        dup2(nFd, 1);
        dup2(nFd, 2);
        execl("/bin/sh", "sh", "-c", ("exec " + strCommand).c_str(), nullptr);
        _exit(127);
    }
    ~CChild()
    {
        Signal(SIGKILL);
        Wait();
    }
    void Signal(int nSignal)
    {
        if (m_nPid > 0)
            kill(m_nPid, nSignal);
    }
    // The exit code; negative: the signal that ended it.
    int Wait()
    {
        if (m_nPid <= 0)
            return m_nExit;
        int nStatus = 0;
        waitpid(m_nPid, &nStatus, 0);
        m_nPid = -1;
        m_nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -WTERMSIG(nStatus);
        return m_nExit;
    }

private:
    pid_t m_nPid = -1;
    int m_nExit = -1;
};

// Looks until the function is content, for a generous while.
template <typename Fn>
bool Eventually(Fn fn, int nSeconds = 20)
{
    for (int i = 0; i < nSeconds * 50; i++)
    {
        if (fn())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

inline int Udp(uint16_t& wPort)
{
    const int nFd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in st = {};
    st.sin_family = AF_INET;
    st.sin_port = htons(wPort);
    st.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nLen = sizeof(st);
    if (bind(nFd, reinterpret_cast<sockaddr*>(&st), nLen) != 0)
    {
        close(nFd);
        return -1;
    }
    getsockname(nFd, reinterpret_cast<sockaddr*>(&st), &nLen);
    wPort = ntohs(st.sin_port);
    return nFd;
}

// Free a moment ago.
inline uint16_t FreePort()
{
    uint16_t wPort = 0;
    close(Udp(wPort));
    return wPort;
}

// The port in a line like "audio: RTP on 127.0.0.1:5004, RTCP on ..." of what the program says; 0: not said yet.
inline uint16_t PortOf(const std::string& strText, const std::string& strMedium)
{
    const std::string strBefore = strMedium + ": RTP on 127.0.0.1:";
    const size_t nAt = strText.find(strBefore);
    return nAt == std::string::npos || strText.find('\n', nAt) == std::string::npos
               ? 0
               : (uint16_t)std::stoi(strText.substr(nAt + strBefore.size()));
}

inline bool Have(const char* pszProgram)
{
    return std::system((std::string("command -v ") + pszProgram + " >/dev/null 2>&1").c_str()) == 0;
}

} // namespace live

#endif
