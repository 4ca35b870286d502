#include "licencenotices.h"

#include <QProcess>
#include <QtTest>

#include <iostream>
#include <sstream>
#include <vector>

namespace {

const QString headerLine = QStringLiteral("This orvix may use the following libs with their corresponding licenses:\n");

const QString lgplFirstLines = QStringLiteral("                   GNU LESSER GENERAL PUBLIC LICENSE\n"
                                              "                       Version 3, 29 June 2007\n");
const QString lgplLastLines = QStringLiteral("permanent authorization for you to choose that version for the\n"
                                             "Library.");

/** Replaces std::cout's buffer for as long as it lives, so what print() writes can be compared. */
class CoutCapture
{
public:
    CoutCapture()
        : m_previous(std::cout.rdbuf(m_stream.rdbuf()))
    {
    }
    ~CoutCapture() { std::cout.rdbuf(m_previous); }

    std::string text() const { return m_stream.str(); }

private:
    std::ostringstream m_stream;
    std::streambuf *m_previous;
};

} // namespace

class tst_LicenceNotices : public QObject
{
    Q_OBJECT

private slots:
    void entriesInOrder_data();
    void entriesInOrder();
    void entryTexts_data();
    void entryTexts();
    void outputBeginsWithHeaderLine();
    void qtFirstAndQtcurlLast();
    void lgplPrintedTwiceInFull();
    void outputLayout();
    void printAddsLineEnd();
    void requested_data();
    void requested();
    void binaryPrintsNotices_data();
    void binaryPrintsNotices();
};

void tst_LicenceNotices::entriesInOrder_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("library");
    QTest::addColumn<QString>("licenceName");

    QTest::newRow("1 Qt") << 0 << QStringLiteral("Qt") << QStringLiteral("LGPLv3");
    QTest::newRow("2 MinGW") << 1 << QStringLiteral("MinGW") << QStringLiteral("MinGW license");
    QTest::newRow("3 tl_optional") << 2 << QStringLiteral("tl_optional")
                                   << QStringLiteral("Creative Commons Legal Code");
    QTest::newRow("4 snap7") << 3 << QStringLiteral("snap7") << QStringLiteral("LGPLv3");
    QTest::newRow("5 curl") << 4 << QStringLiteral("curl") << QStringLiteral("Curl license");
    QTest::newRow("6 openssl") << 5 << QStringLiteral("openssl") << QStringLiteral("OpenSSL license");
    QTest::newRow("7 qtcurl") << 6 << QStringLiteral("qtcurl") << QStringLiteral("Unlicense");
}

void tst_LicenceNotices::entriesInOrder()
{
    QFETCH(int, index);
    QFETCH(QString, library);
    QFETCH(QString, licenceName);

    QCOMPARE(LicenceNotices::entries().size(), 7);
    const LicenceNotices::Entry &entry = LicenceNotices::entries().at(index);
    QCOMPARE(entry.library, library);
    QCOMPARE(entry.licenceName, licenceName);
}

void tst_LicenceNotices::entryTexts_data()
{
    QTest::addColumn<int>("index");
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("inside");
    QTest::addColumn<QString>("end");

    QTest::newRow("Qt: LGPL 3") << 0 << lgplFirstLines << QStringLiteral("  4. Combined Works.\n") << lgplLastLines;
    QTest::newRow("MinGW: runtime notice")
        << 1 << QStringLiteral("MinGW-w64 runtime licensing\n***************************\n")
        << QStringLiteral("Copyright (c) 2009, 2010, 2011, 2012, 2013 by the mingw-w64 project\n")
        << QStringLiteral("MERCHANTABILITY or FITNESS FOR A PARTICULAR PURPOSE.  See the GNU\n"
                          "Lesser General Public License for more details.");
    QTest::newRow("tl_optional: CC0 1.0")
        << 2 << QStringLiteral("Creative Commons Legal Code\n\nCC0 1.0 Universal\n")
        << QStringLiteral("4. Limitations and Disclaimers.\n") << QStringLiteral("    this CC0 or use of the Work.");
    QTest::newRow("snap7: LGPL 3") << 3 << lgplFirstLines << QStringLiteral("  4. Combined Works.\n") << lgplLastLines;
    QTest::newRow("curl: copyright and permission notice")
        << 4 << QStringLiteral("COPYRIGHT AND PERMISSION NOTICE\n\nCopyright (c) 1996 - ")
        << QStringLiteral("Permission to use, copy, modify, and distribute this software for any purpose\n")
        << QStringLiteral("in this Software without prior written authorization of the copyright holder.");
    QTest::newRow("openssl: OpenSSL and SSLeay licences")
        << 5
        << QStringLiteral("\n  LICENSE ISSUES\n  ==============\n\n  The OpenSSL toolkit stays under a double license")
        << QStringLiteral(" Original SSLeay License\n -----------------------\n\n"
                          "/* Copyright (C) 1995-1998 Eric Young (eay@cryptsoft.com)\n")
        << QStringLiteral(" * [including the GNU Public Licence.]\n */");
    QTest::newRow("qtcurl: Unlicense")
        << 6 << QStringLiteral("This is free and unencumbered software released into the public domain.\n")
        << QStringLiteral("relinquishment in perpetuity of all present and future rights to this\n")
        << QStringLiteral("For more information, please refer to <http://unlicense.org/>");
}

void tst_LicenceNotices::entryTexts()
{
    QFETCH(int, index);
    QFETCH(QString, start);
    QFETCH(QString, inside);
    QFETCH(QString, end);

    const QString &text = LicenceNotices::entries().at(index).text;
    QVERIFY2(text.size() > 1000, qPrintable(QString::number(text.size())));
    QVERIFY(text.startsWith(start));
    QVERIFY(text.contains(inside));
    QVERIFY(text.endsWith(end));
    QVERIFY(!text.contains(QLatin1Char('\r')));
}

void tst_LicenceNotices::outputBeginsWithHeaderLine()
{
    QVERIFY(LicenceNotices::text().startsWith(headerLine + QStringLiteral("\nQt licensed under LGPLv3:\n")));
}

void tst_LicenceNotices::qtFirstAndQtcurlLast()
{
    const QString text = LicenceNotices::text();
    const QString marker = QStringLiteral(" licensed under ");
    const int first = text.indexOf(marker);
    const int last = text.lastIndexOf(marker);
    QCOMPARE(text.mid(headerLine.size() + 1, first - headerLine.size() - 1), QStringLiteral("Qt"));
    QCOMPARE(text.mid(last - 7, 7), QStringLiteral("\nqtcurl"));
    QVERIFY(text.endsWith(QStringLiteral("\nqtcurl licensed under Unlicense:\n") + LicenceNotices::entries().last().text
        + QStringLiteral("\n\n")));
}

void tst_LicenceNotices::lgplPrintedTwiceInFull()
{
    const QString lgpl = LicenceNotices::entries().at(0).text;
    QCOMPARE(LicenceNotices::entries().at(3).text, lgpl);

    const QString text = LicenceNotices::text();
    QCOMPARE(text.count(lgpl), 2);
    QCOMPARE(text.count(lgplFirstLines), 2);
    QVERIFY(text.contains(QStringLiteral("\nQt licensed under LGPLv3:\n") + lgpl + QStringLiteral("\n\n")));
    QVERIFY(text.contains(QStringLiteral("\nsnap7 licensed under LGPLv3:\n") + lgpl + QStringLiteral("\n\n")));
}

void tst_LicenceNotices::outputLayout()
{
    QString expected = headerLine;
    for (const LicenceNotices::Entry &entry : LicenceNotices::entries())
        expected += QStringLiteral("\n%1 licensed under %2:\n%3\n\n").arg(entry.library, entry.licenceName, entry.text);
    QCOMPARE(LicenceNotices::text(), expected);

    // Each text is followed by one blank line and the line feed that opens the next entry.
    QVERIFY(LicenceNotices::text().contains(
        QStringLiteral("Library.\n\n\nMinGW licensed under MinGW license:\nMinGW-w64 runtime licensing\n")));
}

void tst_LicenceNotices::printAddsLineEnd()
{
    std::string printed;
    {
        CoutCapture capture;
        LicenceNotices::print();
        printed = capture.text();
    }
    QCOMPARE(QString::fromStdString(printed), LicenceNotices::text() + QLatin1Char('\n'));
}

void tst_LicenceNotices::requested_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<bool>("expected");

    QTest::newRow("only -l") << QStringList { "orvix", "-l" } << true;
    QTest::newRow("-l after another argument") << QStringList { "orvix", "-x", "-l" } << true;
    QTest::newRow("-l before another argument") << QStringList { "orvix", "-l", "-x" } << true;
    QTest::newRow("-l as the program name") << QStringList { "-l" } << true;
    QTest::newRow("-l twice") << QStringList { "orvix", "-l", "-l" } << true;
    QTest::newRow("no arguments") << QStringList { "orvix" } << false;
    QTest::newRow("empty vector") << QStringList {} << false;
    QTest::newRow("-la") << QStringList { "orvix", "-la" } << false;
    QTest::newRow("--l") << QStringList { "orvix", "--l" } << false;
    QTest::newRow("-L") << QStringList { "orvix", "-L" } << false;
    QTest::newRow("l") << QStringList { "orvix", "l" } << false;
    QTest::newRow("-l with a trailing space") << QStringList { "orvix", "-l " } << false;
    QTest::newRow("-l as a program path suffix") << QStringList { "/usr/bin/orvix-l", "-x" } << false;
}

void tst_LicenceNotices::requested()
{
    QFETCH(QStringList, arguments);
    QFETCH(bool, expected);

    std::vector<QByteArray> storage;
    std::vector<char *> argv;
    for (const QString &argument : arguments)
        storage.push_back(argument.toLocal8Bit());
    for (QByteArray &argument : storage)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    QCOMPARE(LicenceNotices::requested(int(arguments.size()), argv.data()), expected);
}

void tst_LicenceNotices::binaryPrintsNotices_data()
{
    QTest::addColumn<QStringList>("arguments");

    QTest::newRow("-x -l") << QStringList { "-x", "-l" };
    QTest::newRow("-l") << QStringList { "-l" };
}

void tst_LicenceNotices::binaryPrintsNotices()
{
    QFETCH(QStringList, arguments);

    QProcess process;
    process.start(QStringLiteral(ORVIX_BINARY), arguments);
    QVERIFY2(process.waitForFinished(30000), qPrintable(process.errorString()));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QCOMPARE(QString::fromUtf8(process.readAllStandardOutput()), LicenceNotices::text() + QLatin1Char('\n'));
    // Nothing else is constructed, so nothing logs.
    QCOMPARE(process.readAllStandardError(), QByteArray());
}

QTEST_GUILESS_MAIN(tst_LicenceNotices)
#include "tst_licencenotices.moc"
