#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// A hand-made browser or player on the loopback interface. What takes longer than some seconds
/// fails the test. Reading what does not come returns what has.
class WebClient {
  public:
    /// Connects to a port of 127.0.0.1. `receiveBuffer` in bytes; 0 for the kernel's choice.
    explicit WebClient(std::uint16_t port, int receiveBuffer = 0);
    ~WebClient();
    WebClient(const WebClient&) = delete;
    WebClient& operator=(const WebClient&) = delete;

    void send(const std::string& bytes) const;
    /// A request for `path` with a Host, further header lines and the empty line.
    void request(const std::string& path, const std::string& lines = {},
                 const std::string& method = "GET") const;
    /// Asks for a WebSocket; `lines` as above.
    void upgrade(const std::string& path, const std::string& lines = {}) const;

    /// Everything up to and with `end`.
    std::string readUntil(const std::string& end);
    std::string read(std::size_t bytes);
    /// The header of an answer.
    std::string header() { return readUntil("\r\n\r\n"); }
    /// A whole answer whose length its header says.
    std::string answer();
    /// The content of the next chunk of HTTP/1.1; empty for the last.
    std::string chunk();
    /// True when the other side closes, ignoring what it sends before.
    bool closes(int seconds = 5);

    /// A message or control frame from the server.
    struct Frame {
        int kind = -1;  ///< 1 text, 2 binary, 8 close, 9 ping, 10 pong; -1: none came.
        std::string content;
    };
    Frame frame();
    /// The next text, ignoring sound before it.
    std::string text();
    /// The next frame that is no sound.
    Frame control();
    /// The frame that ends the WebSocket, ignoring what comes before it.
    Frame end();
    /// A frame to the server; `first` is its first byte.
    void sendFrame(int first, const std::string& content, bool masked = true) const;

    [[nodiscard]] int handle() const { return handle_; }

  private:
    bool receive();

    int handle_;
    std::string bytes_;
};
