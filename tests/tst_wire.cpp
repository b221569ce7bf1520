#include "IDownload.h"
#include "ParcelText.h"
#include "Wire.h"

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <QtTest>

using namespace android;
using namespace android::wire;

class tst_Wire : public QObject {
    Q_OBJECT

    static QByteArray word(uint32_t v) { return QByteArray(reinterpret_cast<char *>(&v), 4); }
    static QByteArray patch(QByteArray b, int at, uint32_t v) { return b.replace(at, 4, word(v)); }
    static QByteArray sized(const QByteArray &b) { return patch(b, 4, uint32_t(b.size()) - 8); }
    // With 8 data bytes, a call's data size is at offset 40 and its object count at 52.
    static QByteArray frame(uint32_t command, size_t objects, size_t data = 8, uint32_t kind = 1)
    {
        const std::vector<uint8_t> b = encode({ command, 7, 3, 2, 9, 1, -22,
            std::vector<uint8_t>(data, 0xab), std::vector<Object>(objects, { kind, 5 }) });
        return QByteArray(reinterpret_cast<const char *>(b.data()), int(b.size()));
    }

private slots:
    void parcels()
    {
        const String16 token(u"ab.c\U0001F600");
        const sp<IBinder> obj = new BBinder;
        Parcel p;
        p.writeInt64(INT64_MIN + 3);
        p.writeStrongBinder(obj);
        p.writeInterfaceToken(token);
        p.writeInt32(-7);
        p.setDataPosition(0);
        QVERIFY(p.readInt64() == INT64_MIN + 3 && p.readStrongBinder() == obj);
        const size_t at = p.dataPosition();
        const auto is = [&](const String16 &t) {
            p.setDataPosition(at);
            return p.enforceInterface(t);
        };
        QVERIFY(!is(String16(u"ab.c")) && !is(String16(u"ab.c\U0001F600!")) && is(token));
        int64_t past = 42; // four bytes left
        QVERIFY(p.readInt64(&past) == NOT_ENOUGH_DATA && past == 0 && p.readInt32() == -7);
        // An entry naming the object one past the last is refused, though a freed object's room
        // still holds obj.
        Parcel one;
        one.writeStrongBinder(obj);
        one.writeStrongBinder(obj);
        one.freeData();
        one.writeStrongBinder(obj);
        one.write((word(1) + word(1)).constData(), 8);
        one.setDataPosition(8);
        QVERIFY(one.readStrongBinder() == nullptr && one.dataPosition() == 8);

        // Records grow at their tail: a reader built before it still finds every listed record,
        // and a list from a service without tails reads with empty ones.
        IDownload a, b;
        a.uniqueID = "a", a.failureReason = "HTTP 404 Not Found", a.httpStatus = 404;
        b.uniqueID = "b", b.bytesPerSecond = 7;
        Parcel list;
        QVERIFY(IDownload::writeList(&list, { a, b }) == NO_ERROR);
        const auto oldReader = [&list] { // four texts, eight numbers, a text, a number
            std::string id, text;
            int64_t n = 0;
            bool ok = dlparcel::readText(list, &text) == NO_ERROR
                && dlparcel::readText(list, &id) == NO_ERROR;
            for (int k = 0; k < 6; ++k)
                ok = ok
                    && (k < 2 ? dlparcel::readText(list, &text) : list.readInt64(&n)) == NO_ERROR;
            return ok && dlparcel::readText(list, &text) == NO_ERROR
                    && list.readInt64(&n) == NO_ERROR
                ? id
                : "?";
        };
        list.setDataPosition(4);
        QVERIFY(oldReader() == "a" && oldReader() == "b");
        Parcel old;
        old.write(list.data(), list.dataPosition());
        old.setDataPosition(0);
        std::vector<IDownload> got;
        QVERIFY(IDownload::readList(old, &got) == NO_ERROR && got.size() == 2
            && got[1].uniqueID == "b" && got[0].httpStatus == 0);
        list.setDataPosition(0);
        QVERIFY(IDownload::readList(list, &got) == NO_ERROR && got.size() == 2);
        QVERIFY(got[0].failureReason == a.failureReason && got[0].httpStatus == 404
            && got[1].bytesPerSecond == 7);

        // Lying lengths and binder entries naming nothing: refused by every reader, nothing read.
        for (const QByteArray &bytes : { word(1000) + "aaaaaaaa", word(INT32_MAX) + "aaaaaaaa",
                 word(-5) + "aaaaaaaa", word(3), word(2) + "aaaaaaaa", word(1) + word(0x05050505),
                 word(1) + word(-1), word(7) + word(0), word(1) }) {
            Parcel lie;
            lie.write(bytes.constData(), size_t(bytes.size()));
            lie.setDataPosition(0);
            QVERIFY2(lie.readString16().size() == 0 && lie.readStrongBinder() == nullptr
                    && !lie.enforceInterface(token) && lie.dataPosition() == 0,
                bytes.toHex());
        }
    }

    void frames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("valid");
        const QByteArray one = frame(Transact, 1), reply = frame(Reply, 1);
        const uint32_t fill = kMaxBody - 40 - kMaxObjects * 12; // the largest body
        QByteArray big = frame(Transact, kMaxObjects, fill);
        QTest::newRow("reply") << reply << true;
        QTest::newRow("largest body, most objects") << big << true;
        QTest::newRow("past the bound") << sized(patch(big.insert(44, 'x'), 40, fill + 1)) << false;
        QTest::newRow("1025 objects")
            << patch(sized(frame(Transact, 1024) + one.right(12)), 52, 1025) << false;
        QTest::newRow("unknown command") << patch(one, 0, 9) << false;
        QTest::newRow("data size past the body") << patch(one, 40, 1000) << false;
        QTest::newRow("object kind 7") << frame(Transact, 1, 8, 7) << false;
        QTest::newRow("trailing byte") << sized(one + 'x') << false;
        for (const QByteArray &whole : { one, reply })
            for (int n = 8; n < whole.size(); ++n)
                QTest::addRow("%d of %d", n, int(whole.size())) << sized(whole.left(n)) << false;
    }

    void frames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, valid);
        const auto *p = reinterpret_cast<const uint8_t *>(bytes.constData());
        uint32_t command = 0, size = 0;
        Frame f;
        QCOMPARE(decodeHeader(p, &command, &size) && decodeBody(command, p + 8, size, &f), valid);
        QVERIFY(!valid || encode(f) == std::vector<uint8_t>(p, p + bytes.size())); // canonical
    }
};

QTEST_GUILESS_MAIN(tst_Wire)
#include "tst_wire.moc"
