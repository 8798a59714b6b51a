#include "progressprinter.h"

#include "formatbytes.h"
#include "terminal.h"

#include <cstdio>

namespace {
const qint64 kRedrawMs = 100;
} // namespace

ProgressPrinter::ProgressPrinter(const QString &label)
    : m_label(label)
    , m_enabled(isTerminal(stderr))
{
    m_started.start();
}

ProgressPrinter::~ProgressPrinter()
{
    finish();
}

void ProgressPrinter::update(qint64 done, qint64 total)
{
    if (m_finished)
        return;
    m_done = done;
    m_total = total;
    if (!m_enabled)
        return;
    const qint64 now = m_started.elapsed();
    if (m_lastDraw >= 0 && now - m_lastDraw < kRedrawMs && done != total)
        return;
    m_lastDraw = now;
    draw();
}

std::function<bool(qint64, qint64)> ProgressPrinter::callback()
{
    return [this](qint64 done, qint64 total) {
        update(done, total);
        return true;
    };
}

void ProgressPrinter::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    if (!m_enabled || m_lastDraw < 0)
        return;
    draw();
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void ProgressPrinter::draw()
{
    QString line = m_label + QLatin1String("  ");
    if (m_total > 0)
        line += QStringLiteral("%1%  ").arg(m_done * 100 / m_total, 3);
    line += formatBytes(m_done);
    if (m_total > 0)
        line += QLatin1String(" / ") + formatBytes(m_total);
    const double seconds = m_started.elapsed() / 1000.0;
    if (seconds > 0.2)
        line += QLatin1String("  ") + formatBytes(qint64(m_done / seconds)) + QLatin1String("/s");
    // Blank out what a longer earlier line left behind.
    const int width = line.size();
    if (width < m_lastWidth)
        line += QString(m_lastWidth - width, QLatin1Char(' '));
    m_lastWidth = width;
    std::fprintf(stderr, "\r%s", line.toLocal8Bit().constData());
    std::fflush(stderr);
}
