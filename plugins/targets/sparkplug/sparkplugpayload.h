#ifndef ORVIX_SPARKPLUGPAYLOAD_H
#define ORVIX_SPARKPLUGPAYLOAD_H

#include "sparkplug_b.pb-c.h"

#include <QByteArray>
#include <QVector>

#include <vector>

class SparkplugDevice;

/**
 * The Sparkplug B payloads of the edge node and its devices, encoded with protobuf-c from the schema in
 * sparkplug_b.proto. The message structures are kept between calls, so encoding allocates nothing once they have
 * grown to the largest device. Device messages are encoded without seq: it is added when they are published.
 */
class SparkplugPayload
{
public:
    /** NBIRTH: seq 0, bdSeq and Node Control/Rebirth false. */
    void nodeBirth(quint64 now, quint32 bdSeq, QByteArray *out);
    /** NDEATH: the bdSeq of the connection it ends. */
    void nodeDeath(quint64 now, quint32 bdSeq, QByteArray *out);
    /** DBIRTH: every metric of the device with its name, alias, type and current value (or null). */
    void deviceBirth(quint64 now, const SparkplugDevice &device, QByteArray *out);
    /** DDATA: the given metrics of the device by alias, each with its time stamp and value. */
    void deviceData(quint64 now, const SparkplugDevice &device, const QVector<int> &metrics, QByteArray *out);
    /** DDEATH: a time stamp and nothing else. */
    void deviceDeath(quint64 now, QByteArray *out);

    /** Adds seq to an encoded payload: a field appended to a protobuf message sets it. */
    static void appendSeq(QByteArray *payload, quint32 seq);
    /** The payload again with every metric flagged historical and seq set; false if it can't be decoded. */
    static bool historical(const QByteArray &payload, quint32 seq, QByteArray *out);
    /** Reads an NCMD: requested is set when it carries Node Control/Rebirth true; false if it can't be decoded. */
    static bool rebirthRequested(const QByteArray &payload, bool *requested);

    /** The names of the node's own metrics. */
    static const char BdSeqName[];
    static const char RebirthName[];

private:
    using Metric = Org__Eclipse__Tahu__Protobuf__Payload__Metric;
    using DataSet = Org__Eclipse__Tahu__Protobuf__Payload__DataSet;
    using Row = Org__Eclipse__Tahu__Protobuf__Payload__DataSet__Row;
    using Value = Org__Eclipse__Tahu__Protobuf__Payload__DataSet__DataSetValue;

    void fill(Metric *metric, const SparkplugDevice &device, int index, bool birth, quint64 now);
    DataSet *notifications(const SparkplugDevice &device);
    void pack(quint64 now, size_t count, bool withSeq, QByteArray *out);

    std::vector<Metric> m_metrics;
    std::vector<Metric *> m_pointers;
    DataSet m_dataSet = ORG__ECLIPSE__TAHU__PROTOBUF__PAYLOAD__DATA_SET__INIT;
    std::vector<Row> m_rows;
    std::vector<Row *> m_rowPointers;
    std::vector<Value> m_values;
    std::vector<Value *> m_valuePointers;
    std::vector<QByteArray> m_texts;
};

#endif
