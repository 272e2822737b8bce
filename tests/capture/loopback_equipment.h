// A decoder with encoders behind it, on loopback: they return what is played, as it is or encoded anew.
#pragma once

#include "capture/labelled_stream.h"
#include "foundation/UniqueFd.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace capture_test {

// A UDP socket that is bound to a port of that address; 0 takes a free one, which is put there.
kestrel::UniqueFd boundSocket(const std::string& address, int& port);

// Returns what it is sent.
class Equipment {
public:
    struct Behaviour {
        std::string encode = {};          // ffmpeg's options; empty: returns every packet as it came
        std::size_t mostBytes = SIZE_MAX; // returns no more
        std::size_t lostFrom = SIZE_MAX;  // loses what lies between these bytes
        std::size_t lostTo = SIZE_MAX;
        std::string address = "127.0.0.1";   // where the stream for the decoder is taken
        int port = 0;                        // likewise; 0: a free one
        std::vector<int> otherEncoders = {}; // their ports; these return it as it came
    };

    Equipment(int encoderPort, Behaviour behaviour);
    ~Equipment() { stop(); }
    Equipment(const Equipment&) = delete;
    Equipment& operator=(const Equipment&) = delete;

    int port() const { return m_port; }
    std::size_t received() const { return m_received; }
    // The last that is still inside comes out.
    void stop();

private:
    void run();

    Behaviour m_behaviour;
    kestrel::UniqueFd m_stop;
    kestrel::UniqueFd m_socket;
    kestrel::UniqueFd m_out;
    int m_port = 0;
    std::vector<int> m_ports; // that it is returned to as it came
    FILE* m_pipe = nullptr;
    std::atomic<std::size_t> m_received{0};
    std::thread m_thread;
};

// An encoder that sends 25 frames a second whether or not its decoder plays anything. Some frames after the
// first datagram of the source its timecodes become the source's, for as many frames as the source has.
class RunningEncoder {
public:
    struct Source {
        std::string firstLabel = {}; // empty: the timecodes go on
        int frames = 0;
        int delay = 10; // frames from the decoder's input to the encoder's output
        int gop = 5;
        int burst = 1; // frames that it sends at once
        // From that frame of the source on its timecodes go on from this one.
        int leapAt = 0;
        std::string leapTo = {};
        // What it sends behind the last frame of the source, or instead of it where the timecodes go on.
        enum class Behind { pictures, nulls, otherRate } behind = Behind::pictures;
        // Another encoder of that port returns what is played as it comes, so much later.
        int otherEncoder = 0;
        std::chrono::milliseconds otherDelay{0};
    };
    RunningEncoder(int encoderPort, LabelledShape shape, Source source);
    ~RunningEncoder();
    RunningEncoder(const RunningEncoder&) = delete;
    RunningEncoder& operator=(const RunningEncoder&) = delete;

    int port() const { return m_port; }
    // Frames that it had sent when the first datagram of the source came; -1 before.
    int framesBefore() const { return m_framesBefore; }

private:
    void run();
    void send(const Packets& packets);
    void sendBurst(int frame, const Packets& packets);
    void takeSource(int frame);
    void returnSource();

    struct Played {
        std::chrono::steady_clock::time_point due;
        std::vector<unsigned char> bytes;
    };
    LabelledStream m_stream;
    Source m_source;
    std::atomic<int> m_framesBefore{-1};
    kestrel::UniqueFd m_stop;
    kestrel::UniqueFd m_socket;
    kestrel::UniqueFd m_out;
    kestrel::UniqueFd m_otherOut;
    Packets m_gathered;           // frames to be sent with others
    std::vector<Played> m_played; // on its way to the other encoder
    int m_port = 0;
    std::thread m_thread;
};

} // namespace capture_test
