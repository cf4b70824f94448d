#pragma once

#include <string>

/// A new network namespace for tests that need interfaces and sockets. The thread that builds one
/// enters it; loopback is down in a new namespace. Needs root, or else user namespaces; without
/// either it prints why and ends the process with status 1, so that no test passes or is skipped
/// unseen. It goes with its last socket, thread and object.
class NetNamespace {
  public:
    NetNamespace();
    ~NetNamespace();
    NetNamespace(const NetNamespace&) = delete;
    NetNamespace& operator=(const NetNamespace&) = delete;

    /// Moves the calling thread into this namespace.
    void enter() const;

    /// A path that names this namespace, for "ip link set DEV netns PATH".
    [[nodiscard]] std::string path() const;

  private:
    int handle_;
};

/// One whose loopback interface is up; queries for servers go to it, too.
class LoopbackNetwork : public NetNamespace {
  public:
    LoopbackNetwork();
};

/// Runs "ip" with these arguments in the calling thread's namespace; ends the process with status
/// 1 when it fails.
void ip(const std::string& arguments);
