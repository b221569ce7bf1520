#include <QtTest>
class tst_PersistenceE2E : public QObject
{
    Q_OBJECT
};
QTEST_GUILESS_MAIN(tst_PersistenceE2E)
#include "tst_persistence_e2e.moc"
