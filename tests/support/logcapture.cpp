#include "logcapture.h"

#include <QtCore/QByteArray>
#include <QtCore/QMutexLocker>
#include <QtCore/QtGlobal>

#include <cstring>

namespace {
LogCapture *s_current = nullptr;
}

LogCapture::LogCapture()
{
    s_current = this;
    m_previous = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
    s_current = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &msg)
{
    LogCapture *self = s_current;
    if (!self)
        return;
    if (context.category && std::strcmp(context.category, "corbeth.lib") == 0) {
        QMutexLocker lock(&self->m_mutex);
        self->m_lines.append(qMakePair(type, msg));
        if (!qEnvironmentVariableIsSet("CORBETH_TEST_VERBOSE"))
            return;
    }
    if (self->m_previous)
        self->m_previous(type, context, msg);
}

void LogCapture::clear()
{
    QMutexLocker lock(&m_mutex);
    m_lines.clear();
}

int LogCapture::count(const QString &text, int type) const
{
    QMutexLocker lock(&m_mutex);
    int n = 0;
    for (const Line &line : m_lines) {
        if ((type < 0 || line.first == type) && line.second.contains(text))
            ++n;
    }
    return n;
}

bool LogCapture::contains(const QString &text, int type) const
{
    return count(text, type) > 0;
}

int LogCapture::indexOf(const QString &text, int from) const
{
    QMutexLocker lock(&m_mutex);
    for (int i = qMax(0, from); i < m_lines.size(); ++i) {
        if (m_lines.at(i).second.contains(text))
            return i;
    }
    return -1;
}

QString LogCapture::dump() const
{
    QMutexLocker lock(&m_mutex);
    QString out;
    for (const Line &line : m_lines)
        out += QString::number(line.first) + QLatin1String(": ") + line.second + QLatin1Char('\n');
    return out;
}
