#ifndef VINDAL_TEST_VINDALTEST_H
#define VINDAL_TEST_VINDALTEST_H

#include "testfiles.h"

#include <QtCore/QMap>
#include <QtCore/QProcess>
#include <QtCore/QVariantMap>

namespace Vindal {
class Reply;
}

namespace VindalTest {

using ::operator""_s;
using ::readFile;
using ::writeFile;

// The same bytes for the same seed, so failures can be reproduced.
QByteArray pseudoRandom(int size, quint32 seed);

// Everything below a folder: relative path -> content, "<dir>" for folders,
// "-> target" for links. Two equal snapshots are two equal trees.
QMap<QString, QByteArray> snapshot(const QString &folder);

// Waits (bounded) for the reply's finished map; empty when it did not come.
QVariantMap waitFinished(Vindal::Reply *reply, int timeoutMs = 20000);

// The nginx the fixture started: its ports, served folder and CA file.
struct Nginx
{
    int http = 0;
    int https = 0;
    QString www;
    QString caFile;
    QString accessLog;
    bool load();
};

// vindal-faultserver serving a folder; stopped when destroyed. Its log (the
// requests it received) is written beside the folder.
class FaultServer
{
public:
    ~FaultServer();
    bool start(const QString &folder);
    QString url(const QString &fault) const { return "http://127.0.0.1:%1/%2/"_s.arg(m_port).arg(fault); }
    // (Its standard error, where Windows ends a line with CR LF.)
    QByteArray log() const { return readFile(m_log).replace("\r\n", "\n"); }

private:
    QProcess m_process;
    QString m_log;
    int m_port = 0;
};

} // namespace VindalTest

#endif // VINDAL_TEST_VINDALTEST_H
