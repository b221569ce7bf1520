#include "Wire.h"

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <QtTest>

using namespace android;

class tst_Wire : public QObject {
    Q_OBJECT

    static QByteArray word(uint32_t v) { return QByteArray(reinterpret_cast<char *>(&v), 4); }
    static QByteArray patch(QByteArray b, int at, uint32_t v) { return b.replace(at, 4, word(v)); }
    // The header's body size made to match the bytes.
    static QByteArray sized(const QByteArray &b) { return patch(b, 4, uint32_t(b.size()) - 8); }
    static QByteArray encoded(const wire::Frame &f)
    {
        const std::vector<uint8_t> b = wire::encode(f);
        return QByteArray(reinterpret_cast<const char *>(b.data()), int(b.size()));
    }
    // With 8 data bytes, a call's data size is at offset 40 and its object count at 52.
    static QByteArray frame(uint32_t command, size_t objects, size_t data = 8, uint32_t kind = 1)
    {
        return encoded({ command, 7, 3, 2, 9, 1, -22, std::vector<uint8_t>(data, 0xab),
            std::vector<wire::Object>(objects, { kind, 5 }) });
    }

private slots:
    void parcels()
    {
        const String16 wide(u"h\u00e9llo \U0001F600");
        const sp<IBinder> obj = new BBinder;
        Parcel p;
        p.writeInt64(INT64_MIN + 3);
        p.write("xyz", 3);
        p.writeString16(wide);
        p.writeStrongBinder(obj);
        p.writeStrongBinder(nullptr);
        p.writeInterfaceToken(String16("ab.c"));
        p.writeInt32(-7);
        QCOMPARE(p.dataSize() % 4, size_t(0));
        p.setDataPosition(0);
        char xyz[3];
        QCOMPARE(p.readInt64(), INT64_MIN + 3);
        QVERIFY(p.read(xyz, 3) == NO_ERROR && QByteArray(xyz, 3) == "xyz");
        QVERIFY(p.readString16() == wide);
        QVERIFY(p.readStrongBinder() == obj && p.readStrongBinder() == nullptr);
        const size_t at = p.dataPosition();
        auto is = [&](const char *token) {
            return p.setDataPosition(at), p.enforceInterface(String16(token));
        };
        QVERIFY(!is("ab.") && !is("ab.cd") && is("ab.c"));
        int64_t past = 42; // four bytes left
        QVERIFY(p.readInt64(&past) == NOT_ENOUGH_DATA && past == 0);
        QCOMPARE(p.readInt32(), -7);

        // Lengths that lie, and binder entries that name nothing: each is a string to no reader
        // and a binder to none; refused with the output cleared and the position kept.
        for (const QByteArray &bytes : { word(1000) + "aaaaaaaa", word(INT32_MAX) + "aaaaaaaa",
                 word(-5) + "aaaaaaaa", word(3), word(2) + "aaaaaaaa", word(1) + word(0x05050505),
                 word(1) + word(-1), word(7) + word(0), word(1) }) {
            Parcel lie;
            lie.write(bytes.constData(), size_t(bytes.size()));
            lie.setDataPosition(0);
            String16 s16(u"x");
            String8 s8("x");
            sp<IBinder> b = obj;
            QVERIFY2(lie.readString16(&s16) != NO_ERROR && lie.readString8(&s8) != NO_ERROR
                    && lie.readStrongBinder(&b) != NO_ERROR && !lie.enforceInterface(String16("x")),
                bytes.toHex());
            QVERIFY(s16.size() == 0 && s8.size() == 0 && b == nullptr && lie.dataPosition() == 0);
        }
    }

    void frames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<bool>("valid");
        const QByteArray one = frame(wire::Transact, 1), reply = frame(wire::Reply, 1);
        QByteArray big = frame(wire::Transact, 0, wire::kMaxBody - 40);
        QTest::newRow("call") << one << true;
        QTest::newRow("reply") << reply << true;
        QTest::newRow("no objects") << frame(wire::Transact, 0) << true;
        QTest::newRow("1024 objects") << frame(wire::Transact, 1024) << true;
        QTest::newRow("largest body") << big << true;
        QTest::newRow("body past the bound")
            << sized(patch(big.insert(44, 'x'), 40, wire::kMaxBody - 39)) << false;
        QTest::newRow("1025 objects")
            << patch(sized(frame(wire::Transact, 1024) + one.right(12)), 52, 1025) << false;
        QTest::newRow("unknown command") << patch(one, 0, 9) << false;
        QTest::newRow("object count past the body") << patch(one, 52, 2) << false;
        QTest::newRow("object kind 7") << frame(wire::Transact, 1, 8, 7) << false;
        QTest::newRow("data size past the body") << patch(one, 40, 1000) << false;
        QTest::newRow("trailing byte") << sized(one + 'x') << false;
        for (const QByteArray &whole : { one, reply })
            for (int n = 8; n < whole.size(); ++n)
                QTest::addRow("%d of %d bytes", n, int(whole.size()))
                    << sized(whole.left(n)) << false;
    }

    void frames()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(bool, valid);
        const auto *p = reinterpret_cast<const uint8_t *>(bytes.constData());
        uint32_t command = 0, size = 0;
        wire::Frame f;
        QCOMPARE(wire::decodeHeader(p, &command, &size) && size == bytes.size() - 8
                && wire::decodeBody(command, p + 8, size, &f),
            valid);
        QVERIFY(!valid || encoded(f) == bytes); // one encoding per frame
    }
};

QTEST_GUILESS_MAIN(tst_Wire)
#include "tst_wire.moc"
