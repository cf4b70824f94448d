#pragma once

#include <string>
#include <vector>

#include <QJsonObject>
#include <QJsonValue>
#include <QProcess>

/// Where the version file lies on the server.
constexpr const char* VERSION_FILE = "/VelantrixData/cur_version_linuxRPiGUI.txt";

/// An answer of the web server. The body may hold any bytes.
struct VersionAnswer {
    std::string body;
    int status = 200;
    std::string location = {};     ///< The header Location; empty: none.
    std::string manner = "whole";  ///< "whole", "byte by byte", "late" (until letGo()), "endless".
};

/// A request that the server has received.
struct VersionRequest {
    std::string method;
    std::string path;
    QJsonObject headers;
};

/// The web server of the tests: a separate process, on a free port of the loopback interface. Ends
/// the test program when it cannot be started. Used on the main thread only.
class VersionServer {
  public:
    VersionServer();
    ~VersionServer();

    /// "http://127.0.0.1:" and the port.
    [[nodiscard]] const std::string& address() const { return ownAddress; }

    /// From now on `path` gets this answer. A path without one gets status 404.
    void answer(const VersionAnswer& given, const std::string& path = VERSION_FILE);

    /// What has been asked since the last call, in order.
    std::vector<VersionRequest> takeRequests();

    /// Waits for a request; false after half a minute.
    bool waitForRequest();

    /// Gives the answers that are held back.
    void letGo();

    /// Forgets answers and requests.
    void reset();

    /// The one of this test program.
    static VersionServer& instance();

  private:
    QProcess process;
    std::string ownAddress;

    QByteArray readLine();
    QJsonValue command(const QJsonObject& request);
};
