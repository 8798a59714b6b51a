#ifndef VINDAL_INDEXCACHE_P_H
#define VINDAL_INDEXCACHE_P_H

#include "packageindex_p.h"

#include <QtCore/QElapsedTimer>

namespace Vindal {

// The module index a manager fetched last, checked and signed as it was, so
// that the download that follows the configuration (which resolves the
// package) does not fetch it again: against a stalled server that cost the
// whole stall time-out twice. Kept for a few minutes, for one configuration,
// and dropped when a download with it fails (the repository may have been
// published again since). Used on the manager's thread only.
class IndexCache
{
public:
    static const qint64 MaxAgeMs = 5 * 60 * 1000;

    void store(const QString &module, const PackageIndex &index, int base)
    {
        m_module = module;
        m_index = index;
        m_base = base;
        m_age.start();
    }
    // The index of module when it is fresh.
    bool find(const QString &module, PackageIndex *index, int *base) const
    {
        if (m_module.isEmpty() || m_module != module || !m_age.isValid() || m_age.elapsed() > MaxAgeMs)
            return false;
        *index = m_index;
        *base = m_base;
        return true;
    }
    void clear() { m_module.clear(); }

private:
    QString m_module;
    PackageIndex m_index;
    int m_base = 0;
    QElapsedTimer m_age;
};

} // namespace Vindal

#endif // VINDAL_INDEXCACHE_P_H
