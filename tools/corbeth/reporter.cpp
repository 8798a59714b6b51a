#include "reporter.h"

#include "formatbytes.h"
#include "terminal.h"

#include <corbeth/cbenum.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QMetaEnum>

#include <cmath>
#include <cstdio>

using Corbeth::CBEnum;

namespace {
const qint64 kRedrawMs = 100;
} // namespace

Reporter::Reporter(Mode mode)
    : m_mode(mode)
{
    m_clock.start();
}

Reporter::~Reporter()
{
    endBar();
}

Reporter::Mode Reporter::pick(bool json)
{
    if (json)
        return Json;
    return isTerminal(stderr) ? Terminal : Plain;
}

QString Reporter::statusName(uint status)
{
    return QString::fromLatin1(QMetaEnum::fromType<CBEnum::TaskStatus>().valueToKey(int(status)));
}

QString Reporter::errorName(qint32 code)
{
    const char *key = QMetaEnum::fromType<CBEnum::ErrorCode>().valueToKey(code);
    return key ? QString::fromLatin1(key) : QStringLiteral("0x%1").arg(code, 0, 16);
}

QString Reporter::stageLabel() const
{
    switch (m_status) {
    case CBEnum::TS_Downloading: return QStringLiteral("downloading");
    case CBEnum::TS_Uninstalling: return QStringLiteral("uninstalling");
    case CBEnum::TS_Uncompressing: return QStringLiteral("unpacking");
    case CBEnum::TS_Installing: return QStringLiteral("installing");
    case CBEnum::TS_Verifying: return QStringLiteral("verifying");
    case CBEnum::TS_Finished: return QStringLiteral("finished");
    case CBEnum::TS_Aborted: return QStringLiteral("aborted");
    default: return QStringLiteral("preparing");
    }
}

void Reporter::emitJson(QJsonObject object)
{
    object.insert(QStringLiteral("time"), m_clock.elapsed() / 1000.0);
    std::fprintf(stdout, "%s\n", QJsonDocument(object).toJson(QJsonDocument::Compact).constData());
    std::fflush(stdout);
}

void Reporter::status(uint status)
{
    if (status != CBEnum::TS_Downloading)
        m_received = -1;
    m_status = status;
    switch (m_mode) {
    case Json:
        emitJson({{QStringLiteral("event"), QStringLiteral("status")}, {QStringLiteral("status"), int(status)},
                  {QStringLiteral("name"), statusName(status)}});
        break;
    case Plain:
        if (status != CBEnum::TS_Finished)
            std::fprintf(stdout, "%s\n", qPrintable(stageLabel()));
        std::fflush(stdout);
        break;
    case Terminal:
        if (status != CBEnum::TS_Finished && status != CBEnum::TS_Aborted)
            drawBar(true);
        break;
    }
}

void Reporter::progress(double percent)
{
    percent = std::min(100.0, std::max(0.0, percent));
    if (m_percent >= 0 && percent <= m_percent)
        return;
    m_percent = percent;
    switch (m_mode) {
    case Json:
        emitJson({{QStringLiteral("event"), QStringLiteral("progress")},
                  {QStringLiteral("percent"), std::round(percent * 100) / 100}});
        break;
    case Plain: {
        // Every tenth, so a log holds a handful of lines per command.
        const int step = int(percent / 10);
        if (step > m_lastPlainStep && step > 0) {
            m_lastPlainStep = step;
            std::fprintf(stdout, "%3d%%\n", step * 10);
            std::fflush(stdout);
        }
        break;
    }
    case Terminal:
        drawBar(percent >= 100);
        break;
    }
}

void Reporter::transfer(qint64 received, qint64 total, double bytesPerSecond)
{
    m_received = received;
    m_total = total;
    m_rate = bytesPerSecond;
    if (m_mode == Json)
        emitJson({{QStringLiteral("event"), QStringLiteral("transfer")},
                  {QStringLiteral("received"), received},
                  {QStringLiteral("total"), total},
                  {QStringLiteral("bytesPerSecond"), std::round(bytesPerSecond)}});
}

void Reporter::drawBar(bool force)
{
    const qint64 now = m_clock.elapsed();
    if (!force && m_lastDraw >= 0 && now - m_lastDraw < kRedrawMs)
        return;
    m_lastDraw = now;
    QStringList parts{QStringLiteral(" %1% %2").arg(int(std::max(0.0, m_percent)), 3).arg(stageLabel())};
    if (m_status == CBEnum::TS_Downloading && m_received >= 0 && m_total > 0) {
        parts << QStringLiteral("  %1 / %2").arg(formatBytes(m_received), formatBytes(m_total));
        if (m_rate > 0)
            parts << QStringLiteral("  %1/s").arg(formatBytes(qint64(m_rate)))
                  << QStringLiteral("  %1 s left").arg(int(std::ceil(double(m_total - m_received) / m_rate)));
    }
    const int width = terminalWidth(stderr) - 1;
    // A third of the line at most, the same in every frame so the bar does not
    // jump when the figures beside it grow. Figures that do not fit beside it
    // are left out whole, never cut mid-word.
    const int barWidth = std::min(40, (width - 2) / 3);
    QString line;
    if (barWidth >= 10 && barWidth + 2 + parts.first().size() <= width) {
        const int filled = int(barWidth * std::max(0.0, m_percent) / 100);
        line = QLatin1Char('[') + QString(filled, QLatin1Char('#')) + QString(barWidth - filled, QLatin1Char('-'))
            + QLatin1Char(']');
    }
    line += parts.takeFirst();
    for (const QString &part : qAsConst(parts)) {
        if (line.size() + part.size() > width)
            break;
        line += part;
    }
    line.truncate(width);
    // \r to the line's start and \033[K clears what a longer line left behind.
    std::fprintf(stderr, "\r%s\033[K", line.toLocal8Bit().constData());
    std::fflush(stderr);
    m_barShown = true;
}

void Reporter::endBar()
{
    if (m_mode != Terminal || !m_barShown)
        return;
    drawBar(true);
    std::fputc('\n', stderr);
    std::fflush(stderr);
    m_barShown = false;
}

void Reporter::signal(const QString &name)
{
    if (m_mode == Json)
        emitJson({{QStringLiteral("event"), QStringLiteral("signal")}, {QStringLiteral("name"), name}});
}

void Reporter::error(qint32 code, const QString &message)
{
    if (m_mode == Json) {
        emitJson({{QStringLiteral("event"), QStringLiteral("error")}, {QStringLiteral("code"), code},
                  {QStringLiteral("name"), errorName(code)}, {QStringLiteral("message"), message}});
        return;
    }
    endBar();
    std::fprintf(stderr, "corbeth: %s (%s)\n", qPrintable(message), qPrintable(errorName(code)));
    std::fflush(stderr);
}

void Reporter::info(const QString &text, const QJsonObject &data)
{
    if (m_mode == Json) {
        QJsonObject object = data;
        object.insert(QStringLiteral("event"), QStringLiteral("info"));
        object.insert(QStringLiteral("text"), text);
        emitJson(object);
        return;
    }
    endBar();
    std::fprintf(stdout, "%s\n", qPrintable(text));
    std::fflush(stdout);
}

void Reporter::warning(const QString &text)
{
    if (m_mode == Json) {
        emitJson({{QStringLiteral("event"), QStringLiteral("warning")}, {QStringLiteral("text"), text}});
        return;
    }
    endBar();
    std::fprintf(stderr, "corbeth: warning: %s\n", qPrintable(text));
    std::fflush(stderr);
}

void Reporter::summary(const QString &command, int exitCode, const QString &outcome)
{
    if (m_mode == Json) {
        emitJson({{QStringLiteral("event"), QStringLiteral("summary")},
                  {QStringLiteral("command"), command},
                  {QStringLiteral("outcome"), outcome},
                  {QStringLiteral("exitCode"), exitCode},
                  {QStringLiteral("seconds"), m_clock.elapsed() / 1000.0}});
        return;
    }
    endBar();
    if (exitCode == 0)
        std::fprintf(stdout, "%s: done in %.1f s\n", qPrintable(command), m_clock.elapsed() / 1000.0);
    else if (outcome == QLatin1String("cancelled"))
        std::fprintf(stderr, "%s: cancelled\n", qPrintable(command));
    std::fflush(stdout);
}
