// A small HTTP server for the faults nginx cannot produce. It serves the
// files of a folder on 127.0.0.1, at a port it picks and prints on its first
// line of output. The first part of the URL path names the fault, the rest
// is the file: GET /drop/modules/app/app.tolmpkg. Documents (".json",
// ".sig") are always served plainly, so the client finds its index.
//
//   ok       the file, with range support
//   drop     the first request ends after half the file; later ones are ok
//   stall    headers and the first KiB, then silence
//   busy     the first request gets 503; later ones are ok
//   norange  always 200 and the whole file, whatever the Range header says
//   short    a Content-Length ten bytes short of the file
//   endless  the file, then garbage without end (no Content-Length)
//   corrupt  the file's length, one byte changed
//   tohttp   a redirect to the same file under /ok/
//   hangup   the connection closed without an answer
//
// GET /_log answers the request lines and Range headers received so far.
// The server quits when its standard input closes.

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QHash>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTextStream>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <cstdio>

namespace {

// The most an endless body sends before the server gives up on its own.
const qint64 EndlessCap = 256 * 1024 * 1024;

class FaultServer : public QObject
{
public:
    explicit FaultServer(const QString &root) : m_root(root) {}

    bool listen()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
        return m_server.listen(QHostAddress::LocalHost, 0);
    }
    quint16 port() const { return m_server.serverPort(); }

private:
    void onReadyRead(QTcpSocket *socket)
    {
        QByteArray &request = m_pending[socket];
        request += socket->readAll();
        const int end = request.indexOf("\r\n\r\n");
        if (end < 0) {
            if (request.size() > 64 * 1024)
                socket->abort();
            return;
        }
        const QList<QByteArray> lines = request.left(end).split('\n');
        m_pending.remove(socket);
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
        QByteArray range;
        for (const QByteArray &line : lines.mid(1)) {
            if (line.toLower().startsWith("range:"))
                range = line.mid(6).trimmed();
        }
        const QList<QByteArray> words = lines.value(0).trimmed().split(' ');
        const QString path = QString::fromUtf8(QByteArray::fromPercentEncoding(words.value(1)));
        m_log += words.value(0) + ' ' + words.value(1) + (range.isEmpty() ? QByteArray() : " Range: " + range) + '\n';
        serve(socket, path, range);
    }

    static void reply(QTcpSocket *socket, const QByteArray &status, const QByteArray &headers, const QByteArray &body)
    {
        socket->write("HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + QByteArray::number(body.size())
                      + "\r\n" + headers + "\r\n" + body);
        socket->disconnectFromHost();
    }

    void serve(QTcpSocket *socket, const QString &path, const QByteArray &range)
    {
        if (path == QLatin1String("/_log"))
            return reply(socket, "200 OK", QByteArray(), m_log);
        const int slash = path.indexOf(QLatin1Char('/'), 1);
        const QString fault = slash > 0 ? path.mid(1, slash - 1) : QString();
        const QString relative = slash > 0 ? path.mid(slash + 1) : QString();
        if (relative.contains(QLatin1String("..")))
            return reply(socket, "403 Forbidden", QByteArray(), QByteArray());
        QFile file(QDir(m_root).filePath(relative));
        if (!file.open(QIODevice::ReadOnly))
            return reply(socket, "404 Not Found", QByteArray(), QByteArray());
        const QByteArray content = file.readAll();
        const bool document = relative.endsWith(QLatin1String(".json")) || relative.endsWith(QLatin1String(".sig"));
        const int seen = m_seen[path]++;
        if (document || fault == QLatin1String("ok") || (seen > 0 && (fault == QLatin1String("drop") || fault == QLatin1String("busy"))))
            return serveRange(socket, content, range);
        if (fault == QLatin1String("drop")) {
            socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nETag: \"v1\"\r\nContent-Length: " + QByteArray::number(content.size())
                          + "\r\n\r\n" + content.left(content.size() / 2));
            socket->flush();
            socket->disconnectFromHost();
            return;
        }
        if (fault == QLatin1String("hangup")) {
            socket->abort();
            return;
        }
        if (fault == QLatin1String("busy"))
            return reply(socket, "503 Service Unavailable", "Retry-After: 1\r\n", "busy");
        if (fault == QLatin1String("stall")) {
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(content.size()) + "\r\n\r\n" + content.left(1024));
            return; // and nothing more, until the client gives up
        }
        if (fault == QLatin1String("norange"))
            return reply(socket, "200 OK", QByteArray(), content);
        if (fault == QLatin1String("short"))
            return reply(socket, "200 OK", QByteArray(), content.left(content.size() - 10));
        if (fault == QLatin1String("corrupt")) {
            QByteArray changed = content;
            if (!changed.isEmpty())
                changed[changed.size() / 2] = char(changed.at(changed.size() / 2) ^ 0x55);
            return reply(socket, "200 OK", QByteArray(), changed);
        }
        if (fault == QLatin1String("tohttp"))
            return reply(socket, "302 Found", "Location: http://127.0.0.1:" + QByteArray::number(port()) + "/ok/" + relative.toUtf8() + "\r\n",
                         QByteArray());
        if (fault == QLatin1String("endless"))
            return serveEndless(socket, content);
        reply(socket, "400 Bad Request", QByteArray(), "unknown fault");
    }

    static void serveRange(QTcpSocket *socket, const QByteArray &content, const QByteArray &range)
    {
        const QByteArray etag = "ETag: \"v1\"\r\n";
        if (range.startsWith("bytes=") && range.endsWith('-')) {
            const qint64 from = range.mid(6, range.size() - 7).toLongLong();
            if (from >= content.size())
                return reply(socket, "416 Range Not Satisfiable", etag, QByteArray());
            return reply(socket, "206 Partial Content",
                         etag + "Content-Range: bytes " + QByteArray::number(from) + '-' + QByteArray::number(content.size() - 1) + '/'
                             + QByteArray::number(content.size()) + "\r\n",
                         content.mid(int(from)));
        }
        reply(socket, "200 OK", etag, content);
    }

    static void serveEndless(QTcpSocket *socket, const QByteArray &content)
    {
        socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + content);
        auto *sent = new qint64(0);
        const QByteArray garbage(64 * 1024, 'x');
        connect(socket, &QTcpSocket::bytesWritten, socket, [socket, sent, garbage] {
            if (socket->bytesToWrite() > 256 * 1024)
                return;
            if (*sent > EndlessCap) {
                socket->abort();
                return;
            }
            *sent += socket->write(garbage);
        });
        connect(socket, &QTcpSocket::disconnected, socket, [sent] { delete sent; });
    }

    QString m_root;
    QTcpServer m_server;
    QHash<QTcpSocket *, QByteArray> m_pending;
    QHash<QString, int> m_seen;
    QByteArray m_log;
};

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    if (app.arguments().size() != 2) {
        std::fprintf(stderr, "usage: vindal-faultserver <folder>\n");
        return 2;
    }
    FaultServer server(app.arguments().at(1));
    if (!server.listen()) {
        std::fprintf(stderr, "cannot listen on 127.0.0.1\n");
        return 1;
    }
    std::printf("%u\n", unsigned(server.port()));
    std::fflush(stdout);
    QSocketNotifier input(0, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, &app, [&app, &input] {
        char c;
        if (std::fread(&c, 1, 1, stdin) != 1) {
            input.setEnabled(false);
            app.quit();
        }
    });
    return app.exec();
}
