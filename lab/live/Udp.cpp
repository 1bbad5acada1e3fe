#include "Udp.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

namespace lab
{

namespace
{

constexpr int c_nReceiveBuffer = 4 << 20; // a key frame and the turn that is being made

bool LookUp(const std::string& strHost, const std::string& strPort, int nFlags, tagRtpAddr& stAddr)
{
    addrinfo stHints = {};
    stHints.ai_family = AF_UNSPEC;
    stHints.ai_socktype = SOCK_DGRAM;
    stHints.ai_flags = nFlags;
    addrinfo* pFound = nullptr;
    if (getaddrinfo(strHost.c_str(), strPort.c_str(), &stHints, &pFound) != 0 || pFound == nullptr)
        return false;
    sockaddr_storage st = {};
    memcpy(&st, pFound->ai_addr, std::min<size_t>(pFound->ai_addrlen, sizeof(st)));
    freeaddrinfo(pFound);
    stAddr = FromSockaddr(st);
    return stAddr.cFamily != 0;
}

} // namespace

CFd& CFd::operator=(CFd&& other) noexcept
{
    if (this != &other)
    {
        Close();
        m_nFd = other.m_nFd;
        other.m_nFd = -1;
    }
    return *this;
}

void CFd::Close()
{
    if (m_nFd >= 0)
        close(m_nFd);
    m_nFd = -1;
}

bool ParseEndpoint(const std::string& strText, tagRtpAddr& stAddr, std::string& strError)
{
    const size_t nColon = strText.rfind(':');
    std::string strHost = strText.substr(0, nColon == std::string::npos ? 0 : nColon);
    if (strHost.size() >= 2 && strHost.front() == '[' && strHost.back() == ']')
        strHost = strHost.substr(1, strHost.size() - 2);
    const std::string strPort = nColon == std::string::npos ? "" : strText.substr(nColon + 1);
    const bool bPort = !strPort.empty() && strPort.size() <= 5 &&
                       strPort.find_first_not_of("0123456789") == std::string::npos &&
                       std::stoi(strPort) > 0 && std::stoi(strPort) <= 65535;
    if (strHost.empty() || !bPort)
    {
        strError =
            fmt::format("\"{}\" is not an address (expected HOST:PORT, for example 127.0.0.1:5004)", strText);
        return false;
    }
    if (LookUp(strHost, strPort, AI_NUMERICSERV, stAddr))
        return true;
    strError = fmt::format("\"{}\": no such host", strText);
    return false;
}

bool ParseAddress(const std::string& strText, tagRtpAddr& stAddr, std::string& strError)
{
    if (LookUp(strText, "0", AI_NUMERICHOST | AI_NUMERICSERV, stAddr))
        return true;
    strError = fmt::format("\"{}\" is not an address (expected for example 0.0.0.0 or ::1)", strText);
    return false;
}

tagRtpAddr FromSockaddr(const sockaddr_storage& st)
{
    tagRtpAddr stAddr;
    if (st.ss_family == AF_INET)
    {
        const sockaddr_in& stIn = reinterpret_cast<const sockaddr_in&>(st);
        stAddr.cFamily = 4;
        memcpy(stAddr.aAddr.data(), &stIn.sin_addr, 4);
        stAddr.wPort = ntohs(stIn.sin_port);
    }
    else if (st.ss_family == AF_INET6)
    {
        const sockaddr_in6& stIn = reinterpret_cast<const sockaddr_in6&>(st);
        stAddr.cFamily = 6;
        memcpy(stAddr.aAddr.data(), &stIn.sin6_addr, 16);
        stAddr.wPort = ntohs(stIn.sin6_port);
    }
    return stAddr;
}

socklen_t ToSockaddr(const tagRtpAddr& stAddr, sockaddr_storage& st)
{
    st = sockaddr_storage();
    if (stAddr.cFamily == 4)
    {
        sockaddr_in& stIn = reinterpret_cast<sockaddr_in&>(st);
        stIn.sin_family = AF_INET;
        memcpy(&stIn.sin_addr, stAddr.aAddr.data(), 4);
        stIn.sin_port = htons(stAddr.wPort);
        return sizeof(stIn);
    }
    sockaddr_in6& stIn = reinterpret_cast<sockaddr_in6&>(st);
    stIn.sin6_family = AF_INET6;
    memcpy(&stIn.sin6_addr, stAddr.aAddr.data(), 16);
    stIn.sin6_port = htons(stAddr.wPort);
    return sizeof(stIn);
}

bool BindUdp(tagRtpAddr& stAddr, CFd& fd, std::string& strError)
{
    fd = CFd(socket(stAddr.cFamily == 4 ? AF_INET : AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_storage st;
    socklen_t nLen = ToSockaddr(stAddr, st);
    if (!fd.IsOpen() || bind(fd.Get(), reinterpret_cast<const sockaddr*>(&st), nLen) != 0)
    {
        strError = fmt::format("UDP {}: cannot be listened on: {}", stAddr.Text(), strerror(errno));
        return false;
    }
    setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &c_nReceiveBuffer, sizeof(c_nReceiveBuffer));
    nLen = sizeof(st);
    if (getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&st), &nLen) == 0)
        stAddr = FromSockaddr(st);
    return true;
}

void SendUdp(const CFd& fd, const tagRtpAddr& stTo, const uint8* pData, size_t nLen)
{
    if (!fd.IsOpen() || stTo.cFamily == 0)
        return;
    sockaddr_storage st;
    const socklen_t nAddr = ToSockaddr(stTo, st);
    // Best effort, as the network is: a full buffer or an unreachable peer loses it.
    (void)!sendto(fd.Get(), pData, nLen, 0, reinterpret_cast<const sockaddr*>(&st), nAddr);
}

} // namespace lab
