// How well the machine kept the time, for whoever reads why a call in real time failed.
#ifndef TESTS_LIVE_MACHINEWATCH_H
#define TESTS_LIVE_MACHINEWATCH_H

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

// From its making on, a thread that sleeps for 10 ms at a time and notes by how much it overslept.
class CMachineWatch
{
public:
    CMachineWatch() : m_thread([this]() { Run(); }) {}
    ~CMachineWatch()
    {
        m_bStop = true;
        m_thread.join();
    }
    CMachineWatch(const CMachineWatch&) = delete;
    CMachineWatch& operator=(const CMachineWatch&) = delete;

    std::string Said() const
    {
        return "a sleeper beside the call was held up by at most " + std::to_string(m_nLongestMs) + " ms";
    }

private:
    void Run()
    {
        using namespace std::chrono;
        while (!m_bStop)
        {
            const auto begin = steady_clock::now();
            std::this_thread::sleep_for(milliseconds(10));
            const int nMs = (int)duration_cast<milliseconds>(steady_clock::now() - begin).count() - 10;
            m_nLongestMs = std::max(m_nLongestMs.load(), nMs);
        }
    }

    std::atomic<bool> m_bStop{false};
    std::atomic<int> m_nLongestMs{0};
    std::thread m_thread; // last: it uses the others
};

#endif
