#include "version_server.h"

#include <cstdio>
#include <cstdlib>

#include <QJsonArray>
#include <QJsonDocument>

#include "link_substitutes.h"

namespace {

constexpr int TIMEOUT_MS = 30000;
constexpr int STEP_MS = 10;

[[noreturn]] void fail(const QProcess& process) {
    std::fprintf(stderr, "the web server of the tests does not work: %s\n",
                 qPrintable(process.errorString()));
    std::exit(2);
}

VersionRequest toRequest(const QJsonValue& value) {
    return {value["method"].toString().toStdString(), value["path"].toString().toStdString(),
            value["headers"].toObject()};
}

}  // namespace

VersionServer::VersionServer() {
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start("/usr/bin/python3", {VERSION_SERVER_SCRIPT});
    ownAddress = "http://127.0.0.1:" + readLine().trimmed().toStdString();
}

VersionServer::~VersionServer() {
    process.closeWriteChannel();
    process.waitForFinished(TIMEOUT_MS);
}

void VersionServer::answer(const VersionAnswer& given, const std::string& path) {
    QJsonObject headers;
    if (!given.location.empty()) {
        headers["Location"] = QString::fromStdString(given.location);
    }
    const QString body =
        QString::fromLatin1(given.body.data(), static_cast<int>(given.body.size()));
    command({{"answer", QJsonObject{{"path", QString::fromStdString(path)},
                                    {"status", given.status},
                                    {"headers", headers},
                                    {"body", body},
                                    {"manner", QString::fromStdString(given.manner)}}}});
}

std::vector<VersionRequest> VersionServer::takeRequests() {
    std::vector<VersionRequest> requests;
    for (const QJsonValue& value : command({{"take_requests", true}}).toArray()) {
        requests.push_back(toRequest(value));
    }
    return requests;
}

bool VersionServer::waitForRequest() {
    for (int waited = 0; waited < TIMEOUT_MS; waited += STEP_MS) {
        if (!takeRequests().empty()) {
            return true;
        }
        reallySleep(STEP_MS);
    }
    return false;
}

void VersionServer::letGo() {
    command({{"let_go", true}});
}

void VersionServer::reset() {
    command({{"reset", true}});
}

VersionServer& VersionServer::instance() {
    static VersionServer server;
    return server;
}

QByteArray VersionServer::readLine() {
    while (!process.canReadLine()) {
        if (!process.waitForReadyRead(TIMEOUT_MS)) {
            fail(process);
        }
    }
    return process.readLine();
}

QJsonValue VersionServer::command(const QJsonObject& request) {
    process.write(QJsonDocument(request).toJson(QJsonDocument::Compact) + "\n");
    const QJsonDocument reply = QJsonDocument::fromJson(readLine());
    return reply.isArray() ? QJsonValue(reply.array()) : QJsonValue(reply.object());
}
