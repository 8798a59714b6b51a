// A binary patch as a delta package brings it, applied to a fixed old file.
// Whatever the patch holds, applying ends (true or false) without writing
// more than the patch announces, and true only with exactly that.
#include "fuzzsupport.h"

#include "binarypatch_p.h"

#include <QtCore/QBuffer>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>

using namespace Vindal;

// The old file the seeds were made against (fuzz/corpus/binarypatch/README).
static QByteArray oldContent()
{
    QByteArray data(65536, Qt::Uninitialized);
    for (int i = 0; i < data.size(); ++i)
        data[i] = char((i * 7919 + (i >> 8) * 31) & 0xff);
    return data;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static QTemporaryDir scratch;
    static const QString oldFile = scratch.filePath(QStringLiteral("old"));
    if (!QFile::exists(oldFile)) {
        QFile file(oldFile);
        if (!file.open(QIODevice::WriteOnly) || file.write(oldContent()) != 65536)
            fuzzFailure("cannot write the old file");
    }
    QByteArray input = fuzzInput(data, size);
    QBuffer patch(&input), out;
    patch.open(QIODevice::ReadOnly);
    out.open(QIODevice::WriteOnly);
    QString error;
    const bool applied = BinaryPatch::apply(oldFile, &patch, &out, &error);
    const quint64 announced = size >= 24 ? qFromLittleEndian<quint64>(data + 16) : 0;
    if (quint64(out.size()) > announced || (applied && quint64(out.size()) != announced))
        fuzzFailure("the output is not the size the patch announces");
    if (!applied && error.isEmpty())
        fuzzFailure("a refused patch without a reason");
    return 0;
}
