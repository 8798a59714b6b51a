#include "linuxhardware_p.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QtEndian>

namespace Corbeth {

namespace {
QHash<QString, QString> colonFields(const QByteArray &entry)
{
    QHash<QString, QString> fields;
    for (const QByteArray &line : entry.split('\n')) {
        const int colon = line.indexOf(':');
        if (colon > 0)
            fields.insert(QString::fromLatin1(line.left(colon).trimmed()), QString::fromUtf8(line.mid(colon + 1).trimmed()));
    }
    return fields;
}

// The entries of /proc/cpuinfo are separated by empty lines.
QList<QByteArray> paragraphs(const QByteArray &text)
{
    QList<QByteArray> out;
    int start = 0;
    for (int end = text.indexOf("\n\n"); end >= 0; end = text.indexOf("\n\n", start)) {
        out.append(text.mid(start, end - start));
        start = end + 2;
    }
    out.append(text.mid(start));
    return out;
}

// /proc/swaps escapes blanks in file names as octal "\040".
QString unescapeOctal(const QByteArray &field)
{
    QByteArray out;
    for (int i = 0; i < field.size(); ++i) {
        bool ok = false;
        const int code = field.at(i) == '\\' ? field.mid(i + 1, 3).toInt(&ok, 8) : 0;
        if (ok && i + 3 < field.size()) {
            out.append(char(code));
            i += 3;
        } else {
            out.append(field.at(i));
        }
    }
    return QString::fromUtf8(out);
}
} // namespace

QList<QVariantMap> LinuxHardware::processorBlocks(const QByteArray &cpuinfo,
                                                  const std::function<qint64(int)> &maxFrequencyKHz)
{
    struct Package
    {
        QString name;
        int firstCpu = -1;
        int logical = 0;
        int coresField = 0;
        QSet<QString> coreIds;
        double mhz = 0;
    };
    QMap<int, Package> packages;
    QString boardName; // ARM kernels name the machine once, outside the processor entries
    for (const QByteArray &entry : paragraphs(cpuinfo)) {
        const QHash<QString, QString> fields = colonFields(entry);
        bool isProcessor = false;
        const int cpu = fields.value(QStringLiteral("processor")).toInt(&isProcessor);
        if (!isProcessor) {
            boardName = fields.value(QStringLiteral("Model"), fields.value(QStringLiteral("Hardware"), boardName));
            continue;
        }
        Package &package = packages[fields.value(QStringLiteral("physical id"), QStringLiteral("0")).toInt()];
        if (package.firstCpu < 0)
            package.firstCpu = cpu;
        ++package.logical;
        if (package.name.isEmpty())
            package.name = fields.value(QStringLiteral("model name"), fields.value(QStringLiteral("cpu model")));
        package.coresField = fields.value(QStringLiteral("cpu cores")).toInt();
        if (fields.contains(QStringLiteral("core id")))
            package.coreIds.insert(fields.value(QStringLiteral("core id")));
        package.mhz = qMax(package.mhz, fields.value(QStringLiteral("cpu MHz")).toDouble());
    }

    QList<QVariantMap> blocks;
    for (const Package &package : qAsConst(packages)) {
        QVariantMap block;
        const QString name = package.name.isEmpty() ? boardName : package.name;
        if (!name.isEmpty())
            block.insert(QStringLiteral("Name"), name);
        const int cores = package.coresField > 0 ? package.coresField
            : !package.coreIds.isEmpty()        ? package.coreIds.size()
                                                : package.logical;
        block.insert(QStringLiteral("NumberOfCores"), QString::number(cores));
        const qint64 maxKHz = maxFrequencyKHz ? maxFrequencyKHz(package.firstCpu) : 0;
        const qint64 mhz = maxKHz > 0 ? maxKHz / 1000 : qRound64(package.mhz);
        if (mhz > 0)
            block.insert(QStringLiteral("maxclockspeed"), QString::number(mhz));
        blocks.append(block);
    }
    return blocks;
}

QList<QVariantMap> LinuxHardware::memoryBlocksFromSmbios(const QByteArray &table)
{
    const auto *data = reinterpret_cast<const uchar *>(table.constData());
    const int size = table.size();
    QList<QVariantMap> blocks;
    int pos = 0;
    while (pos + 4 <= size) {
        const int type = data[pos];
        const int length = data[pos + 1];
        if (length < 4 || pos + length > size || type == 127) // 127 ends the table
            break;
        // Memory device: size at 0x0C (0x7FFF: extended size in MiB at 0x1C;
        // bit 15: KiB instead of MiB), speed in MT/s at 0x15.
        if (type == 17 && length >= 0x17) {
            const quint16 sizeField = qFromLittleEndian<quint16>(data + pos + 0x0C);
            qint64 bytes = 0;
            if (sizeField == 0x7FFF && length >= 0x20)
                bytes = qint64(qFromLittleEndian<quint32>(data + pos + 0x1C) & 0x7FFFFFFF) << 20;
            else if (sizeField != 0 && sizeField != 0xFFFF && sizeField != 0x7FFF)
                bytes = (sizeField & 0x8000) ? qint64(sizeField & 0x7FFF) << 10 : qint64(sizeField) << 20;
            if (bytes > 0) {
                QVariantMap block{{QStringLiteral("Capacity"), QString::number(bytes)}};
                const quint16 speed = qFromLittleEndian<quint16>(data + pos + 0x15);
                if (speed != 0 && speed != 0xFFFF)
                    block.insert(QStringLiteral("Speed"), QString::number(speed));
                blocks.append(block);
            }
        }
        // The formatted area is followed by its strings, ended by two NULs.
        int next = pos + length;
        while (next + 1 < size && (data[next] != 0 || data[next + 1] != 0))
            ++next;
        pos = next + 2;
    }
    return blocks;
}

QList<QVariantMap> LinuxHardware::swapBlocks(const QByteArray &swaps)
{
    QList<QVariantMap> blocks;
    const QList<QByteArray> lines = swaps.split('\n');
    // The first line is the column header.
    for (int i = 1; i < lines.size(); ++i) {
        const QList<QByteArray> fields = lines.at(i).simplified().split(' ');
        if (fields.size() < 4)
            continue;
        const QString name = unescapeOctal(fields.at(0));
        blocks.append(QVariantMap{
            {QStringLiteral("Name"), name},
            {QStringLiteral("Description"), name},
            {QStringLiteral("AllocatedBaseSize"), QString::number(fields.at(2).toLongLong() / 1024)},
            {QStringLiteral("CurrentUsage"), QString::number(fields.at(3).toLongLong() / 1024)},
            {QStringLiteral("Status"), QString()},
            {QStringLiteral("TempPageFile"), QStringLiteral("False")},
        });
    }
    return blocks;
}

} // namespace Corbeth
