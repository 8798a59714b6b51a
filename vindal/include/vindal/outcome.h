#ifndef VINDAL_OUTCOME_H
#define VINDAL_OUTCOME_H

#include <vindal/error.h>
#include <vindal/vindal_export.h>

#include <QtCore/QString>

namespace Vindal {

// The result of a synchronous operation of the library: a code, a message an
// operator can read, and the path or archive entry concerned (raw, untranslated).
struct VINDAL_EXPORT Outcome
{
    Error::ErrorCode code = Error::NoError;
    QString message;
    QString subject;

    bool ok() const { return code == Error::NoError; }
    explicit operator bool() const { return ok(); }

    static Outcome success(const QString &message = QString()) { return Outcome{Error::NoError, message, QString()}; }
    static Outcome failure(Error::ErrorCode code, const QString &message, const QString &subject = QString())
    {
        return Outcome{code, message, subject};
    }
};

} // namespace Vindal

#endif // VINDAL_OUTCOME_H
