// One client connection: reads requests, hands them to a processor and sends the answer.
#pragma once

#include <memory>
#include <string>

// A connection that can be read from and written to.
class ISocketHelper {
public:
    // Serves the connection until it ends.
    virtual void readFromSocket() = 0;
    // Sends text and one LF; false when it could not be sent.
    virtual bool sendToSocket(char* text) = 0;
    virtual ~ISocketHelper() = default;
};

// Turns a request line into an answer.
class IMessageProcessor {
public:
    // Writes the answer to request into response (responseSize bytes, terminated). True when it is to be
    // sent.
    virtual bool process(char* request, char* response, int responseSize) = 0;
    virtual ~IMessageProcessor() = default;
};

// Serves one connection; owns its socket and its processor.
class CSocketHelper : public ISocketHelper {
    // Before the public m_Message: members stand in their published order.
    int m_socket; // -1 when closed
    std::unique_ptr<IMessageProcessor> m_processor;

public:
    // Largest request in bytes; what a client sends beyond it is cut.
    static constexpr int MAX_REQUEST = 2000;
    // Size of the buffer for an answer, in bytes.
    static constexpr int RESPONSE_SIZE = 2000;

    // Takes ownership of the socket and of the processor.
    CSocketHelper(int socket, IMessageProcessor* processor);
    ~CSocketHelper() override;
    CSocketHelper(const CSocketHelper&) = delete;
    CSocketHelper& operator=(const CSocketHelper&) = delete;

    // What one receive returns is one request. Returns after the first answer that was sent, or when the
    // peer closes.
    void readFromSocket() override;
    // With one send; a short one is not repeated. False, with a logged error, when it failed.
    bool sendToSocket(char* text) override;

    // Ends the reading from another thread: a waiting receive returns at once. An answer in the making is
    // still sent.
    void shutDown() const noexcept;

    // The last request, trimmed.
    char* m_Message = nullptr; // owned

private:
    bool serveOneRequest();
    void dropRest() const;

    bool m_sendingFailed = false; // by an exception, which ends the connection
};
