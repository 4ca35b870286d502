#ifndef ORVIX_BACKOFF_H
#define ORVIX_BACKOFF_H

/**
 * The pause before the next attempt after failures, the same rule for every connection of orvix: the first pause,
 * doubled after each further failure up to the longest, each pause up to a quarter shorter at random so that
 * connections lost together don't all come back in the same instant. A pause is never longer than the longest.
 */
class Backoff
{
public:
    explicit Backoff(int first = 1000, int longest = 60000);

    /** The first and the longest pause in milliseconds; the longest is at least the first. */
    void setRange(int first, int longest);
    int first() const { return m_first; }
    int longest() const { return m_longest; }

    /** The pause after one more failure, in milliseconds. */
    int next();
    /** After a success: the next failure waits the first pause again. */
    void reset() { m_failures = 0; }
    /** Failures since the last reset. */
    int failures() const { return m_failures; }

    /** The pause after failures failures, before the jitter: first * 2^(failures-1), at most longest. */
    static int base(int failures, int first, int longest);
    /** A pause of base with the jitter applied: from three quarters of base to base. */
    static int jittered(int base);

private:
    int m_first;
    int m_longest;
    int m_failures = 0;
};

#endif
