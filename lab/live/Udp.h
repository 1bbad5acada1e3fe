// UDP sockets and addresses, as a listener needs them.
#ifndef LAB_UDP_H
#define LAB_UDP_H

#include "RtpTypes.h"

#include <string>
#include <sys/socket.h>

namespace lab
{

// An open file that closes itself.
class CFd
{
public:
    CFd() = default;
    explicit CFd(int nFd) : m_nFd(nFd) {}
    ~CFd() { Close(); }
    CFd(CFd&& other) noexcept : m_nFd(other.m_nFd) { other.m_nFd = -1; }
    CFd& operator=(CFd&& other) noexcept;
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    int Get() const { return m_nFd; }
    bool IsOpen() const { return m_nFd >= 0; }
    void Close();

private:
    int m_nFd = -1;
};

// "127.0.0.1:5004", "[::1]:5004", "host:5004"; names are looked up. False with what was expected.
bool ParseEndpoint(const std::string& strText, tagRtpAddr& stAddr, std::string& strError);
// "0.0.0.0", "::1".
bool ParseAddress(const std::string& strText, tagRtpAddr& stAddr, std::string& strError);

tagRtpAddr FromSockaddr(const sockaddr_storage& st);
socklen_t ToSockaddr(const tagRtpAddr& stAddr, sockaddr_storage& st);

// A socket that does not block, bound to the address; port 0: any free one, and stAddr tells which.
bool BindUdp(tagRtpAddr& stAddr, CFd& fd, std::string& strError);
void SendUdp(const CFd& fd, const tagRtpAddr& stTo, const uint8* pData, size_t nLen);

} // namespace lab

#endif
