#ifndef ORVIX_LICENCENOTICES_H
#define ORVIX_LICENCENOTICES_H

#include <QList>
#include <QString>

/** The licences of the libraries orvix is built from, compiled into the program. */
namespace LicenceNotices {

/** One library with the name and the full text of the licence it is used under. */
struct Entry
{
    QString library;
    QString licenceName;
    QString text;
};

/** The fixed list of entries, in the order they are printed; filled before main runs. */
const QList<Entry> &entries();

/** True if any element of the argument vector, the program name included, is exactly "-l". */
bool requested(int argc, char **argv);

/** The whole notice: the header line and every entry. */
QString text();

/** Writes the notice, one more line end, and flushes standard output. */
void print();

} // namespace LicenceNotices

#endif
