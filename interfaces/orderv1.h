#ifndef ORVIX_ORDERV1_H
#define ORVIX_ORDERV1_H

#include "recordsupport.h"

#include <QDateTime>
#include <QMetaType>
#include <QString>

/** A machine's current order and program. */
struct OrderV1
{
    QString text1;
    /** The name of the program the machine runs. */
    QString programName;
    QString text3;
    double number4;
    bool flag5 = false;
    double number6;
    double number7;
    double number8 = 0;
    QDateTime time9;
    QDateTime time10;
    double number11;
    QString text12 = QLatin1String("");
    QString text13;

    /** Calls visit(name, member pointer) for every field, in declaration order. */
    template <typename Visitor> static void visitFields(Visitor &&visit)
    {
        visit("text1", &OrderV1::text1);
        visit("programName", &OrderV1::programName);
        visit("text3", &OrderV1::text3);
        visit("number4", &OrderV1::number4);
        visit("flag5", &OrderV1::flag5);
        visit("number6", &OrderV1::number6);
        visit("number7", &OrderV1::number7);
        visit("number8", &OrderV1::number8);
        visit("time9", &OrderV1::time9);
        visit("time10", &OrderV1::time10);
        visit("number11", &OrderV1::number11);
        visit("text12", &OrderV1::text12);
        visit("text13", &OrderV1::text13);
    }
};

inline bool operator==(const OrderV1 &a, const OrderV1 &b)
{
    return orvix::recordsEqual(a, b);
}

inline bool operator!=(const OrderV1 &a, const OrderV1 &b)
{
    return !(a == b);
}

inline QDebug operator<<(QDebug debug, const OrderV1 &record)
{
    return orvix::debugRecord(debug, record, "OrderV1");
}

Q_DECLARE_METATYPE(OrderV1)

#endif
