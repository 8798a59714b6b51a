#ifndef CORBETH_TEST_LOGCAPTURE_H
#define CORBETH_TEST_LOGCAPTURE_H

#include <QtCore/QList>
#include <QtCore/QMutex>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtGlobal>

// Records every "corbeth.lib" line written while it lives, from any thread, so
// a test can assert the texts an operator reads in the log. Lines of other
// categories pass through to the previous handler.
class LogCapture
{
public:
    using Line = QPair<QtMsgType, QString>;

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    void clear();

    // Whether a line of this level contains the text (any level when type is -1).
    bool contains(const QString &text, int type = -1) const;
    int count(const QString &text, int type = -1) const;
    // The position of the first line containing text at or after from, or -1.
    int indexOf(const QString &text, int from = 0) const;
    // Every captured line, one per row, for failure messages.
    QString dump() const;

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &msg);

    mutable QMutex m_mutex;
    QList<Line> m_lines;
    QtMessageHandler m_previous = nullptr;
};

#endif // CORBETH_TEST_LOGCAPTURE_H
