// One encoder of a capture: its receiver, its ring, and the thread that writes its recording.
#pragma once

#include "Recording.h"
#include "UdpReceiver.h"
#include "foundation/Mutex.h"

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::capture {

class EncoderChannel {
public:
    // turned is signalled when the state of the recording, or what it tells of its marks, has changed. ring:
    // packets for which there is room between its threads.
    EncoderChannel(const StreamSource& source, RecordingPlan plan, WakeEvent& turned,
                   const Timing& timing = {}, std::size_t ring = ringPackets);
    ~EncoderChannel();
    EncoderChannel(const EncoderChannel&) = delete;
    EncoderChannel& operator=(const EncoderChannel&) = delete;

    // Checks the output and opens the socket. again: after another's failure, whose text said who has the
    // port.
    [[nodiscard]] MaybeFailure open(bool again = false);
    // Whether open() failed because another recorder or program has the port.
    [[nodiscard]] bool portTaken() const noexcept { return m_receiver.portTaken(); }
    // Starts both threads.
    [[nodiscard]] MaybeFailure start();
    // Ends the recording; what has been received until now is still written. What Recording calls by these
    // names; the first of them counts.
    void cancel();
    void stop();
    // Carried out by the writer thread, in the order of the calls: what Recording calls by these names.
    void arm() EXCLUDES(m_mutex);
    void disarm() EXCLUDES(m_mutex);
    void refer(LabelReference reference) EXCLUDES(m_mutex);
    void sourceBegins(LabelReference begin) EXCLUDES(m_mutex);
    void sourceEnded() EXCLUDES(m_mutex);
    // Ends the receiver of a recording that has ended, and waits for both threads.
    void join();

    [[nodiscard]] RecordingStatus status() const EXCLUDES(m_mutex);
    // What the network and the ring lost since the recording began, as it stands in the results: "" or
    // ", 3 datagrams lost in the receive buffer". Where nothing was recorded, also what came instead. To be
    // asked after join().
    [[nodiscard]] std::string losses() const;
    // Logs what was lost since the last call.
    void logLosses();

private:
    // Losses at one moment.
    struct Losses {
        std::uint64_t kernel = 0, ring = 0, rtp = 0, late = 0, restarts = 0;
        std::uint64_t badDatagrams = 0, cutDatagrams = 0, badPackets = 0;
    };

    enum class End { none, cancelled, stopped };

    void write() noexcept;
    void endNow(End how);
    void order(std::function<void(Recording&)> what) EXCLUDES(m_mutex);
    void carryOut() EXCLUDES(m_mutex);
    [[nodiscard]] bool takePortion();
    void attend() EXCLUDES(m_mutex);
    void tickAt(Clock::time_point time);
    void noteDelay(Clock::time_point arrived);
    void publish() EXCLUDES(m_mutex);
    void noteLossesBefore(const Losses& losses) EXCLUDES(m_mutex);
    [[nodiscard]] Losses currentLosses() const;
    [[nodiscard]] std::string badSizes() const;
    [[nodiscard]] std::string others() const;
    void logBad(const Losses& now) const;

    const std::string m_name;
    const std::uint32_t m_sender; // that is listened to; 0: any
    PacketRing m_ring;
    WakeEvent m_arrived;
    WakeEvent& m_turned;
    UdpReceiver m_receiver;
    Recording m_recording;           // of the writer thread, once that runs
    bool m_received = false;         // likewise
    bool m_late = false;             // likewise: behind the stream, which has been told
    Clock::time_point m_lastArrival; // likewise: of what was taken last
    std::thread m_writer;
    std::atomic<End> m_end{End::none};
    Losses m_logged;

    mutable Mutex m_mutex;
    std::vector<std::function<void(Recording&)>> m_orders GUARDED_BY(m_mutex);
    RecordingStatus m_status GUARDED_BY(m_mutex);
    Losses m_atStart GUARDED_BY(m_mutex);
};

} // namespace kestrel::capture
