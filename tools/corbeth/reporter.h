#ifndef CORBETH_CLI_REPORTER_H
#define CORBETH_CLI_REPORTER_H

#include <QtCore/QElapsedTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QString>

// Everything the tool tells its user, in one of three forms: a live bar on a
// terminal (standard error, redrawn in place), plain lines a log file can hold,
// or one JSON object per line on standard output for other programs.
class Reporter
{
public:
    enum Mode { Terminal, Plain, Json };

    explicit Reporter(Mode mode);
    ~Reporter();
    Reporter(const Reporter &) = delete;
    Reporter &operator=(const Reporter &) = delete;

    static Mode pick(bool json);

    void status(uint status);
    // The command's one figure 0..100; lower figures than the last are ignored.
    void progress(double percent);
    // Bytes of the current download, shown beside the bar.
    void transfer(qint64 received, qint64 total, double bytesPerSecond);
    void signal(const QString &name);
    void error(qint32 code, const QString &message);
    void info(const QString &text, const QJsonObject &data = QJsonObject());
    void warning(const QString &text);
    void summary(const QString &command, int exitCode, const QString &outcome);

    static QString statusName(uint status);
    static QString errorName(qint32 code);

private:
    void emitJson(QJsonObject object);
    void drawBar(bool force);
    void endBar();
    QString stageLabel() const;

    Mode m_mode;
    uint m_status = 0;
    // -1 until the first figure, which may be 0.
    double m_percent = -1;
    qint64 m_received = -1;
    qint64 m_total = 0;
    double m_rate = 0;
    QElapsedTimer m_clock;
    qint64 m_lastDraw = -1;
    int m_lastPlainStep = -1;
    bool m_barShown = false;
};

#endif // CORBETH_CLI_REPORTER_H
