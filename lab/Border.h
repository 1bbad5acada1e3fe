// Whose code is running: the receiver's or its owner's. For whoever counts what the receiver costs.
#ifndef LAB_BORDER_H
#define LAB_BORDER_H

namespace lab
{

inline thread_local bool t_bInReceiver = false;

// From here to the end of the block this thread is in the receiver, or back at its owner.
class CBorder
{
public:
    enum emSide
    {
        AT_OWNER,
        IN_RECEIVER
    };
    explicit CBorder(emSide eSide) : m_bWas(t_bInReceiver) { t_bInReceiver = eSide == IN_RECEIVER; }
    ~CBorder() { t_bInReceiver = m_bWas; }
    CBorder(const CBorder&) = delete;
    CBorder& operator=(const CBorder&) = delete;

private:
    const bool m_bWas;
};

} // namespace lab

#endif
