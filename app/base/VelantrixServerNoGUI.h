#pragma once

#include <atomic>

#include "app/base/ThreadMember.h"

/// The server core: owns the worker threads, and receives the reports of the network and audio
/// code. This class prints them to standard output; the main window derives from it and shows them.
///
/// Built, started and destroyed on the main thread. The reports come from other threads.
class VelantrixServerNoGUI {
  public:
    /// Starts nothing.
    VelantrixServerNoGUI();

    /// Closes the audio capture on a separate thread and waits for it at most 3 s, so that a
    /// hanging driver cannot hang the exit; up to a second more when a thread hangs inside a
    /// report. The worker threads end with the process.
    virtual ~VelantrixServerNoGUI();

    VelantrixServerNoGUI(const VelantrixServerNoGUI&) = delete;
    VelantrixServerNoGUI& operator=(const VelantrixServerNoGUI&) = delete;

    /// Prints the banner, loads the settings and starts the worker threads. Ends the process with
    /// status 255 when the network or the discovery thread cannot be started. Called once.
    virtual void init();

    /// Notes that captured sound has been sent; the first call in the process prints a line.
    /// Thread: capture. Realtime-safe: yes.
    virtual void SetAudioCaptureActive();

    /// Shows `message` to the user; headless: prints it. `message` is borrowed for the call. May
    /// block until the user has closed the message. Thread: network | version check.
    virtual void emitShowMessage(const char* message);

    /// Shows who is connected. `clientCount` counts connections, `clientName` is the UTF-8 name of
    /// the client that just asked for data, empty for a new connection, null when one has left;
    /// `direct` only on the main thread. Headless: does nothing. Blocks until shown.
    /// Thread: capture, or main with `direct`.
    virtual void SetClientStatus(int clientCount, const char* clientName, bool direct);

    /// Looks for a newer release; returns 1 when it found one that was not announced before, else
    /// 0. Blocks during the fetch. Thread: version check.
    virtual int checkVersion();

    /// The IPv4 address that clients should use: the bind address if one was chosen, else the
    /// first suitable address of this machine, else "(Unknown)". Prints what it found the first
    /// time. Never null; the text is overwritten by the next call. Thread: main.
    static const char* GetIPAddress();

  protected:
    // Written by the capture thread, read and cleared by the window's timer. Relaxed: a stale
    // read delays the display by one tick.
    std::atomic<bool> audioCaptureActive{false};

  private:
    // Written by the shutdown thread, polled by the destructor.
    std::atomic<bool> audioShutdownDone{false};

    ThreadMember<VelantrixServerNoGUI> audioCommThread;
    ThreadMember<VelantrixServerNoGUI> multiCommThread;
    ThreadMember<VelantrixServerNoGUI> versionCheckThread;
    ThreadMember<VelantrixServerNoGUI> audioShutdownThread;

    // Bodies of the worker threads.
    void audioCommThreadFn();
    void multiCommThreadFn();
    void versionCheckThreadFn();
    void audioShutdownThreadFn();

    void closeAudioUnderWatchdog();

    friend struct CoreTestAccess;
};
