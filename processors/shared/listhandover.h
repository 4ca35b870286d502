#ifndef ORVIX_LISTHANDOVER_H
#define ORVIX_LISTHANDOVER_H

#include <QList>

/**
 * How a processor that sends a list dataset again and a processor that keeps the lists it receives hand lists over
 * without copying them (the mapper and Limit, the Validator as a second receiver):
 *
 * - The sender sends the same list again (the same QList data) when nothing in it changed. A receiver knows it by
 *   sameList(), without looking at its items.
 * - A receiver that keeps a list keeps the last one it took (its items stay where they are while it holds it; Limit's
 *   entries point into them) and lets go of the one before when it takes a newer one.
 * - So the sender may write its next change into the list before the last, once writableAgain() says that no receiver
 *   holds it any more; otherwise it copies.
 */
namespace ListHandover {

/** Whether two lists are the same list sent again: they share their items. */
template <typename Item> bool sameList(const QList<Item> &a, const QList<Item> &b)
{
    return !a.isEmpty() && !b.isEmpty() && &a.constFirst() == &b.constFirst();
}

/** Whether a list the sender keeps is held by no receiver, so that writing into it changes no dataset sent. */
template <typename Item> bool writableAgain(const QList<Item> &list)
{
    return list.isDetached();
}

} // namespace ListHandover

#endif
