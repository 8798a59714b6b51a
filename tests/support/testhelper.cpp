// A small program the tests run as a real process. Options are applied in order:
//   --print TEXT        write TEXT and a newline to standard output
//   --stderr TEXT       write TEXT and a newline to standard error
//   --sleep MS          sleep MS milliseconds
//   --exit CODE         exit at once with CODE
//   --pidfile PATH      write this process's id to PATH
//   --spawn-child PATH  start a child copy of this program that writes its own
//                       id to PATH and sleeps 60 s (to test that a time-out
//                       ends the whole process tree)
//   --detach-child PATH like --spawn-child, but the child leaves for a session
//                       of its own through a double fork (setsid)
//   --touch PATH        create PATH (empty)
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QThread>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    for (int i = 1; i < args.size(); ++i) {
        const QString &opt = args.at(i);
        const QString value = i + 1 < args.size() ? args.at(i + 1) : QString();
        if (opt == QLatin1String("--print")) {
            std::printf("%s\n", value.toLocal8Bit().constData());
            std::fflush(stdout);
            ++i;
        } else if (opt == QLatin1String("--stderr")) {
            std::fprintf(stderr, "%s\n", value.toLocal8Bit().constData());
            ++i;
        } else if (opt == QLatin1String("--sleep")) {
            QThread::msleep(value.toULong());
            ++i;
        } else if (opt == QLatin1String("--exit")) {
            return value.toInt();
        } else if (opt == QLatin1String("--pidfile") || opt == QLatin1String("--touch")) {
            QFile f(value);
            if (f.open(QIODevice::WriteOnly) && opt == QLatin1String("--pidfile"))
                f.write(QByteArray::number(QCoreApplication::applicationPid()));
            ++i;
        } else if (opt == QLatin1String("--spawn-child")) {
            // Started as an ordinary child, so it stays in this process's group,
            // and deliberately never waited for.
            auto *child = new QProcess;
            child->start(QCoreApplication::applicationFilePath(),
                         {QStringLiteral("--pidfile"), value, QStringLiteral("--sleep"), QStringLiteral("60000")});
            child->waitForStarted();
            ++i;
        } else if (opt == QLatin1String("--detach-child")) {
            // QProcess::startDetached forks twice and calls setsid: the child
            // is neither in this process's group nor its child.
            QProcess::startDetached(QCoreApplication::applicationFilePath(),
                                    {QStringLiteral("--pidfile"), value, QStringLiteral("--sleep"), QStringLiteral("60000")});
            ++i;
        }
    }
    return 0;
}
