#ifndef CORBETH_TREEPROCESS_P_H
#define CORBETH_TREEPROCESS_P_H

#include <QtCore/QProcess>

#include <memory>

namespace Corbeth {

// A QProcess whose program runs together with every process it starts in one
// group (a process group on Unix, a job object on Windows), so that a program
// that overran its time can be ended with all of its children: a timed-out
// install step must leave no orphan running.
class TreeProcess : public QProcess
{
    Q_OBJECT
public:
    explicit TreeProcess(QObject *parent = nullptr);
    ~TreeProcess() override;

    // Ends the program and every process it started that still runs. False
    // when the tree could not be contained or ended, and only the program
    // itself was.
    bool killTree();

protected:
    void setupChildProcess() override;

private:
    struct Group;
    std::unique_ptr<Group> m_group;
};

} // namespace Corbeth

#endif // CORBETH_TREEPROCESS_P_H
