#include "Wire.h"

#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <QtTest>

#include <random>

using namespace android;

namespace {

QByteArray word(uint32_t v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), 4);
}

QByteArray patch(QByteArray bytes, int at, uint32_t v)
{
    return bytes.replace(at, 4, word(v));
}

// The header's body size made to match the bytes.
QByteArray sized(const QByteArray &bytes)
{
    return patch(bytes, 4, uint32_t(bytes.size()) - 8);
}

QByteArray encoded(const wire::Frame &f)
{
    const std::vector<uint8_t> b = wire::encode(f);
    return QByteArray(reinterpret_cast<const char *>(b.data()), int(b.size()));
}

// With 8 data bytes, a call's data size is at offset 40, its object count at 52.
QByteArray frame(uint32_t command, size_t objects, size_t data = 8, uint32_t kind = wire::SenderObject)
{
    return encoded({ command, 7, 3, 2, 9, 1, -22, std::vector<uint8_t>(data, 0xab),
        std::vector<wire::Object>(objects, { kind, 5 }) });
}

bool decodes(const QByteArray &bytes, wire::Frame *out)
{
    const auto *p = reinterpret_cast<const uint8_t *>(bytes.constData());
    uint32_t command = 0, size = 0;
    return bytes.size() >= 8 && wire::decodeHeader(p, &command, &size)
        && size == bytes.size() - 8 && wire::decodeBody(command, p + 8, size, out);
}

} // namespace

class tst_Wire : public QObject {
    Q_OBJECT

private slots:
    void parcelRoundTrip()
    {
        const String16 wide(u"h\u00e9llo \U0001F600");
        const sp<IBinder> obj = new BBinder;
        Parcel p;
        p.writeInt32(-7);
        p.writeUint32(0xfffffffeu);
        p.writeInt64(INT64_MIN + 3);
        p.writeUint64(UINT64_MAX - 1);
        p.writeBool(true);
        p.writeCString("odd");
        p.writeString8(String8("eight"));
        p.writeString16(wide);
        p.writeUtf8AsUtf16("\u00fctf8");
        p.writeStrongBinder(obj);
        p.writeInterfaceToken(String16("ab.c"));
        p.writeInt32(99);
        QCOMPARE(p.dataSize() % 4, size_t(0));
        p.setDataPosition(0);
        QCOMPARE(p.readInt32(), -7);
        QCOMPARE(p.readUint32(), 0xfffffffeu);
        QCOMPARE(p.readInt64(), INT64_MIN + 3);
        QCOMPARE(p.readUint64(), UINT64_MAX - 1);
        QVERIFY(p.readBool());
        QCOMPARE(p.readCString(), "odd");
        QCOMPARE(p.readString8().string(), "eight");
        QVERIFY(p.readString16() == wide);
        std::string utf8;
        QVERIFY(p.readUtf8FromUtf16(&utf8) == NO_ERROR && utf8 == "\u00fctf8");
        QVERIFY(p.readStrongBinder() == obj);
        const size_t token = p.dataPosition();
        QVERIFY(!p.enforceInterface(String16("ab.")));
        p.setDataPosition(token);
        QVERIFY(!p.enforceInterface(String16("ab.cd")));
        p.setDataPosition(token);
        QVERIFY(p.enforceInterface(String16("ab.c")));
        int64_t past = 42; // four bytes left
        QVERIFY(p.readInt64(&past) == NOT_ENOUGH_DATA && past == 0);
        QCOMPARE(p.readInt32(), 99);
    }

    void parcelRefuses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("reader"); // String16, String8, binder, interface token
        for (int r : { 0, 1, 3 }) {
            QTest::addRow("%d longer than the data", r) << word(1000) + QByteArray(8, 'a') << r;
            QTest::addRow("%d INT32_MAX", r) << word(INT32_MAX) + QByteArray(8, 'a') << r;
            QTest::addRow("%d negative", r) << word(-5) + QByteArray(8, 'a') << r;
            QTest::addRow("%d length only", r) << word(3) << r;
            QTest::addRow("%d unterminated", r) << word(2) + QByteArray(8, 'a') << r;
        }
        QTest::newRow("binder index out of table") << word(1) + word(0) << 2;
        QTest::newRow("binder negative index") << word(1) + word(-1) << 2;
        QTest::newRow("binder unknown kind") << word(7) + word(0) << 2;
        QTest::newRow("binder truncated") << word(1) << 2;
    }

    void parcelRefuses()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, reader);
        Parcel p;
        p.write(bytes.constData(), size_t(bytes.size()));
        p.setDataPosition(0);
        String16 s16(u"x");
        String8 s8("x");
        sp<IBinder> b = new BBinder;
        const bool refused[] = { reader == 0 && p.readString16(&s16) != NO_ERROR,
            reader == 1 && p.readString8(&s8) != NO_ERROR,
            reader == 2 && p.readStrongBinder(&b) != NO_ERROR,
            reader == 3 && !p.enforceInterface(String16("x")) };
        QVERIFY(refused[reader]);
        QVERIFY(s16.size() == size_t(reader != 0) && s8.size() == size_t(reader != 1));
        QVERIFY((b == nullptr) == (reader == 2));
        QCOMPARE(p.dataPosition(), size_t(0));
    }

    void frameRoundTrip()
    {
        for (const QByteArray &bytes : { frame(wire::Transact, 0), frame(wire::Transact, 1),
                 frame(wire::Transact, 1024), frame(wire::Reply, 1),
                 frame(wire::Transact, 0, wire::kMaxBody - 40) }) {
            wire::Frame f;
            QVERIFY(decodes(bytes, &f));
            QCOMPARE(encoded(f), bytes);
        }
        // Whatever still decodes after one flipped bit encodes back to the very same bytes.
        std::mt19937 rng(16);
        qInfo("bit flips from seed 16");
        for (int i = 0; i < 20000; ++i) {
            QByteArray bytes = frame(i % 2 ? wire::Reply : wire::Transact, size_t(i % 3));
            bytes[int(rng() % uint32_t(bytes.size()))] ^= char(1u << rng() % 8);
            wire::Frame f;
            QVERIFY(!decodes(bytes, &f) || encoded(f) == bytes);
        }
    }

    void frameRefuses_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray one = frame(wire::Transact, 1);
        QByteArray big = frame(wire::Transact, 0, wire::kMaxBody - 40).insert(44, 'x');
        QTest::newRow("body past the bound") << sized(patch(big, 40, wire::kMaxBody - 39));
        QTest::newRow("unknown command") << patch(one, 0, 9);
        QTest::newRow("1025 objects") << patch(sized(frame(wire::Transact, 1024) + one.right(12)), 52, 1025);
        QTest::newRow("object count past the body") << patch(one, 52, 2);
        QTest::newRow("object kind 7") << frame(wire::Transact, 1, 8, 7);
        QTest::newRow("data size past the body") << patch(one, 40, 1000);
        QTest::newRow("trailing byte") << sized(one + 'x');
        for (const QByteArray &whole : { one, frame(wire::Reply, 1) }) {
            for (int n = 8; n < whole.size(); ++n)
                QTest::addRow("%s cut to %d bytes", whole == one ? "call" : "reply", n) << sized(whole.left(n));
        }
    }

    void frameRefuses()
    {
        QFETCH(QByteArray, bytes);
        wire::Frame f;
        QVERIFY(!decodes(bytes, &f));
    }
};

QTEST_GUILESS_MAIN(tst_Wire)
#include "tst_wire.moc"
