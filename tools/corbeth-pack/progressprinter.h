#ifndef CORBETH_PACK_PROGRESSPRINTER_H
#define CORBETH_PACK_PROGRESSPRINTER_H

#include <QtCore/QElapsedTimer>
#include <QtCore/QString>

#include <functional>

// One line of progress on standard error, redrawn in place at most ten times a
// second. Silent when standard error is not a terminal, so logs and pipes only
// get the final result lines.
class ProgressPrinter
{
public:
    explicit ProgressPrinter(const QString &label);
    ~ProgressPrinter();
    ProgressPrinter(const ProgressPrinter &) = delete;
    ProgressPrinter &operator=(const ProgressPrinter &) = delete;

    void update(qint64 done, qint64 total);
    // A progress callback for the library that feeds this printer.
    std::function<bool(qint64, qint64)> callback();
    // Draws the last state and ends the line; later updates are ignored.
    void finish();

private:
    void draw();

    QString m_label;
    bool m_enabled;
    bool m_finished = false;
    qint64 m_done = 0;
    qint64 m_total = 0;
    QElapsedTimer m_started;
    qint64 m_lastDraw = -1;
    int m_lastWidth = 0;
};

#endif // CORBETH_PACK_PROGRESSPRINTER_H
