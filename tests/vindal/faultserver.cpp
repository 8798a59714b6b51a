// A small HTTP server for the faults nginx cannot produce. It serves the
// files of a folder on 127.0.0.1, at a port it picks and prints on its first
// line of output. The first part of the URL path names the fault, the rest
// is the file: GET /drop/modules/app/app.tolmpkg. Documents (".json", ".sig")
// are always served plainly, so the client finds its index. The faults:
//   ok       the file, with range support
//   drop     the first request ends after half the file; later ones are ok
//   liar     every request ends after half the file, one byte changed, sent
//            with the ETag the honest servers send
//   stall    headers and the first KiB, then silence
//   busy     the first request gets 503; later ones are ok
//   down     every request for a package gets 503
//   norange  always 200 and the whole file, whatever the Range header says
//   short    a Content-Length ten bytes short of the file
//   endless  the file, then garbage without end (no Content-Length)
//   corrupt  the file's length, one byte changed
//   tohttp   a redirect to the same file under /ok/
//   hangup   the connection closed without an answer
//   drip     headers, then one byte every 100 ms (for at most a minute)
//   twoclients  the first request gets half the file and the rest 2 s
//            later, so that a second client can come in between; later
//            requests are ok
//   hang     no answer at all, not even to documents
// Each request line (and its Range and If-Range headers) goes to standard error before the
// answer. The server quits when its standard input closes.

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QHash>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <cstdio>
#include <memory>

namespace {

QString root;
quint16 port = 0;
QHash<QByteArray, int> seen;

void reply(QTcpSocket *socket, const QByteArray &status, const QByteArray &headers, const QByteArray &body)
{
    socket->write("HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n"
                  + headers + "\r\n" + body);
    socket->disconnectFromHost();
}

void serve(QTcpSocket *socket, const QByteArray &path, const QByteArray &range)
{
    const int slash = path.indexOf('/', 1);
    const QByteArray fault = path.mid(1, slash - 1);
    const QByteArray relative = path.mid(slash + 1);
    QFile file(QDir(root).filePath(QString::fromUtf8(relative)));
    if (slash < 0 || relative.contains("..") || !file.open(QIODevice::ReadOnly)) // with a page, as real servers send
        return reply(socket, "404 Not Found", "Content-Type: text/html\r\n", "<html><body>404 Not Found</body></html>\n");
    if (fault == "hang")
        return;
    QByteArray content = file.readAll();
    const QByteArray length = QByteArray::number(content.size());
    const bool document = relative.endsWith(".json") || relative.endsWith(".sig");
    if (document || fault == "ok" || (seen[path]++ > 0 && (fault == "drop" || fault == "busy" || fault == "twoclients"))) {
        const QByteArray etag = "ETag: \"v1\"\r\n";
        const qint64 from = range.startsWith("bytes=") && range.endsWith('-') ? range.mid(6, range.size() - 7).toLongLong() : -1;
        if (from >= content.size())
            return reply(socket, "416 Range Not Satisfiable", etag, QByteArray());
        if (from < 0)
            return reply(socket, "200 OK", etag, content);
        const QByteArray last = QByteArray::number(content.size() - 1);
        return reply(socket, "206 Partial Content", etag + "Content-Range: bytes " + QByteArray::number(from) + '-' + last + '/' + length + "\r\n",
                     content.mid(int(from)));
    }
    if (fault == "drop" || fault == "liar") {
        if (fault == "liar")
            content[content.size() / 4] = char(content.at(content.size() / 4) ^ 0x55);
        socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nETag: \"v1\"\r\nContent-Length: " + length + "\r\n\r\n"
                      + content.left(content.size() / 2));
        socket->flush();
        return socket->disconnectFromHost();
    }
    if (fault == "hangup")
        return socket->abort();
    if (fault == "drip" || fault == "twoclients") {
        const int first = fault == "drip" ? 0 : content.size() / 2;
        socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\nETag: \"v1\"\r\nContent-Length: " + length + "\r\n\r\n"
                      + content.left(first));
        auto sent = std::make_shared<int>(first);
        auto *timer = new QTimer(socket);
        QObject::connect(timer, &QTimer::timeout, socket, [socket, timer, content, sent, fault] {
            if (fault == "drip" && *sent < qMin(600, content.size()))
                return void(socket->write(content.mid((*sent)++, 1)));
            timer->stop();
            socket->write(content.mid(*sent));
            socket->disconnectFromHost();
        });
        return timer->start(fault == "drip" ? 100 : 2000);
    }
    if (fault == "busy")
        return reply(socket, "503 Service Unavailable", "Retry-After: 1\r\n", "busy");
    if (fault == "down")
        return reply(socket, "503 Service Unavailable", QByteArray(), "down");
    if (fault == "stall") // and nothing more, until the client gives up
        return void(socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + length + "\r\n\r\n" + content.left(1024)));
    if (fault == "norange")
        return reply(socket, "200 OK", QByteArray(), content);
    if (fault == "short")
        return reply(socket, "200 OK", QByteArray(), content.left(content.size() - 10));
    if (fault == "corrupt") {
        content[content.size() / 2] = char(content.at(content.size() / 2) ^ 0x55);
        return reply(socket, "200 OK", QByteArray(), content);
    }
    if (fault == "tohttp")
        return reply(socket, "302 Found", "Location: http://127.0.0.1:" + QByteArray::number(port) + "/ok/" + relative + "\r\n", QByteArray());
    if (fault != "endless")
        return reply(socket, "400 Bad Request", QByteArray(), "unknown fault");
    // Garbage in 64 KiB blocks; after 256 MiB the server gives up on its own.
    socket->write("HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n" + content);
    auto sent = std::make_shared<qint64>(0);
    QObject::connect(socket, &QTcpSocket::bytesWritten, socket, [socket, sent] {
        if (socket->bytesToWrite() > 256 * 1024)
            return;
        if (*sent > 256 * 1024 * 1024)
            return socket->abort();
        *sent += socket->write(QByteArray(64 * 1024, 'x'));
    });
}

void onReadyRead(QTcpSocket *socket)
{
    const QByteArray request = socket->property("request").toByteArray() + socket->readAll();
    socket->setProperty("request", request);
    const int end = request.indexOf("\r\n\r\n");
    if (end < 0)
        return request.size() > 64 * 1024 ? socket->abort() : void();
    QObject::disconnect(socket, &QTcpSocket::readyRead, nullptr, nullptr);
    const QList<QByteArray> lines = request.left(end).split('\n');
    QByteArray range;
    QByteArray ifRange;
    for (const QByteArray &line : lines.mid(1)) {
        if (line.toLower().startsWith("range:"))
            range = line.mid(6).trimmed();
        if (line.toLower().startsWith("if-range:"))
            ifRange = " If-Range: " + line.mid(9).trimmed();
    }
    const QList<QByteArray> words = lines.value(0).trimmed().split(' ');
    std::fprintf(stderr, "%s %s%s%s%s\n", words.value(0).constData(), words.value(1).constData(), range.isEmpty() ? "" : " Range: ",
                 range.constData(), ifRange.constData());
    serve(socket, QByteArray::fromPercentEncoding(words.value(1)), range);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QTcpServer server;
    if (app.arguments().size() != 2 || !server.listen(QHostAddress::LocalHost, 0)) {
        std::fprintf(stderr, "usage: vindal-faultserver <folder> (listens on 127.0.0.1)\n");
        return 2;
    }
    root = app.arguments().at(1);
    port = server.serverPort();
    QObject::connect(&server, &QTcpServer::newConnection, &server, [&server] {
        while (QTcpSocket *socket = server.nextPendingConnection()) {
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [socket] { onReadyRead(socket); });
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        }
    });
    std::printf("%u\n", unsigned(port));
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
