#pragma once

#include <atomic>

#include <enet/enet.h>

#include "app/base/VelantrixServerNoGUI.h"

/// A core that looks at the client table before each pass of the network, on the thread that owns
/// it, and says how much memory is in use whenever everybody has left. It slows the capture down
/// while no client is heard.
class CheckingCore : public VelantrixServerNoGUI {
  public:
    /// Called with each block, when no event is half handled. Thread: capture.
    void SetAudioCaptureActive() override;

    /// How often the table was wrong. Thread: any.
    [[nodiscard]] long faults() const { return faultCount.load(); }

  private:
    void noteIdle(bool nobody);
    void waitForClients(bool nobody);
    void require(bool condition, const char* text);

    std::atomic<long> faultCount{0};
    long idleBlocks = 0;
    long silentBlocks = 0;
    enet_uint32 receivedBefore = 0;  ///< Datagrams.
};
