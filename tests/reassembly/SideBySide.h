// The library's receive side and the reference model, driven call by call and compared: results, the
// error flag and code, every record handed out, and the pool's ready counts. The differential test
// and the receive-path fuzz harness share it, so it needs neither GoogleTest nor libFuzzer: each
// mismatch goes, as text, to the report function its user gives.
#pragma once

#include "MQTTProtocol.h"
#include "reassembly/ReferenceFraming.h"

#include <functional>
#include <map>
#include <set>
#include <string>

namespace mqtttest {

// The pool's ready counts of every listed client over indexes 0 .. indexCount - 1. Listing is an
// operation of its own: it clears the error flag, and sets it when nothing is ready.
std::map<std::string, int> ReadyCounts(int indexCount);

// One packet as Recv handed it out, its body copied and its block freed. Asked to, it reads the whole
// block (a smaller one shows under the sanitizers) and checks that it is zero beyond the body.
struct Taken
{
    bool ok = false;
    uint8_t first = 0;
    bool hasBody = false;
    reference::Bytes body;
    // The length fits the block (0 without one), and the block is the mode's size where that shows.
    bool blockSized = true;
    bool zeroBeyondBody = true;
};
Taken TakeOut(const char* address, bool checkWholeBlock = false);

class SideBySide
{
public:
    using Report = std::function<void(const std::string& mismatch)>;
    // Only a Delete resets a ready count, so a count gone wrong is still wrong before the next Delete:
    // comparing there finds it at a fraction of the cost of comparing after every call, though not
    // when it went wrong.
    enum Counts
    {
        kBeforeDelete,
        kAfterEveryCall
    };

    SideBySide(int poolCount, Report report, Counts counts = kBeforeDelete)
        : m_PoolCount(poolCount), m_Report(std::move(report)), m_Counts(counts)
    {
    }

    void Insert(const std::string& address);
    void Delete(const std::string& address);
    void Send(const std::string& address, const reference::Bytes& piece);
    // Takes one packet from both sides; returns whether the library handed one out. In block mode every
    // 64th block is read whole (10 MiB), to see that it is zero beyond the body.
    bool Recv(const std::string& address);
    const reference::Framing& Model() const { return m_Model; }

private:
    void Expect(bool same, const char* what)
    {
        if (!same) m_Report(what);
    }
    void CompareErrorState(const char* operation);
    void CompareReadyCounts();

    int m_PoolCount;
    Report m_Report;
    Counts m_Counts;
    reference::Framing m_Model;
    std::set<std::string> m_Addresses;
    int m_Deliveries = 0;
};

}  // namespace mqtttest
