#ifndef ORVIX_LICENCENOTICES_H
#define ORVIX_LICENCENOTICES_H

#include <QList>
#include <QString>

/** The licences of the libraries orvix is built from, compiled into the program. */
namespace LicenceNotices {

struct Entry
{
    QString library;
    QString licenceName;
    QString text;
};

/** The fixed list of entries, in the order they are printed. */
const QList<Entry> &entries();

/** The whole notice: the header line and every entry. */
QString text();

/** Writes the notice, one more line end, and flushes standard output. */
void print();

} // namespace LicenceNotices

#endif
