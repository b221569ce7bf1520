#include <binder/Binder.h>
#include <binder/Parcel.h>

#include <QtTest>

using namespace android;

class tst_Parcel : public QObject {
    Q_OBJECT

private slots:
    void everyTypeRoundTrips();
    void readPastEndFailsWithZero();
    void lyingLengthsAreRejected_data();
    void lyingLengthsAreRejected();
    void binderObjectsKeepIdentity();
    void interfaceTokenIsEnforced();
};

void tst_Parcel::everyTypeRoundTrips()
{
    const String16 wide(u"h\u00e9llo \u4e16\u754c");
    Parcel p;
    p.writeInt32(-7);
    p.writeUint32(0xfffffffeu);
    p.writeInt64(INT64_MIN + 3);
    p.writeUint64(UINT64_MAX - 1);
    p.writeBool(true);
    p.writeCString("odd");
    p.writeString8(String8("eight"));
    p.writeString16(wide);
    p.writeString16(nullptr, 0);
    p.writeUtf8AsUtf16("ütf8");
    const char raw[5] = { 1, 2, 3, 4, 5 };
    p.write(raw, sizeof raw);
    p.writeInt32(99);
    QCOMPARE(p.dataSize() % 4, size_t(0));

    p.setDataPosition(0);
    int32_t i32 = 0;
    QCOMPARE(p.readInt32(&i32), NO_ERROR);
    QCOMPARE(i32, -7);
    QCOMPARE(p.readUint32(), 0xfffffffeu);
    QCOMPARE(p.readInt64(), INT64_MIN + 3);
    uint64_t u64 = 0;
    QCOMPARE(p.readUint64(&u64), NO_ERROR);
    QCOMPARE(u64, UINT64_MAX - 1);
    QCOMPARE(p.readBool(), true);
    QCOMPARE(QByteArray(p.readCString()), QByteArray("odd"));
    QCOMPARE(QByteArray(p.readString8().string()), QByteArray("eight"));
    QVERIFY(p.readString16() == wide);
    String16 null16;
    QCOMPARE(p.readString16(&null16), UNEXPECTED_NULL);
    std::string utf8;
    QCOMPARE(p.readUtf8FromUtf16(&utf8), NO_ERROR);
    QCOMPARE(utf8, std::string("ütf8"));
    char back[5] = {};
    QCOMPARE(p.read(back, sizeof back), NO_ERROR);
    QCOMPARE(QByteArray(back, 5), QByteArray(raw, 5));
    QCOMPARE(p.readInt32(), 99);
    QCOMPARE(p.dataAvail(), size_t(0));
}

void tst_Parcel::readPastEndFailsWithZero()
{
    Parcel p;
    p.writeInt32(5);
    p.setDataPosition(0);
    int64_t v = 42;
    QCOMPARE(p.readInt64(&v), NOT_ENOUGH_DATA);
    QCOMPARE(v, int64_t(0));
    QCOMPARE(p.readInt32(), 5);
    QCOMPARE(p.readInt32(), 0);
    QVERIFY(p.readCString() == nullptr);
    QVERIFY(p.readStrongBinder() == nullptr);
    p.setDataPosition(1000);
    QCOMPARE(p.dataAvail(), size_t(0));
    QCOMPARE(p.readUint32(), 0u);
    char buf[8] = { 1 };
    QCOMPARE(p.read(buf, sizeof buf), NOT_ENOUGH_DATA);
    QCOMPARE(buf[0], char(0));

    Parcel empty; // empty payloads are legal, also on a parcel without storage
    QCOMPARE(empty.write(buf, 0), NO_ERROR);
    QCOMPARE(empty.read(buf, 0), NO_ERROR);
    QCOMPARE(empty.dataSize(), size_t(0));
}

void tst_Parcel::lyingLengthsAreRejected_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("reader"); // 0 String16, 1 String8, 2 binder, 3 interface token
    auto word = [](int32_t v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); };
    for (int reader : { 0, 1, 3 }) {
        const QByteArray r = QByteArray::number(reader);
        QTest::newRow("longer than data " + r) << word(1000) + QByteArray(8, 'a') << reader;
        QTest::newRow("huge length " + r) << word(INT32_MAX) + QByteArray(8, 'a') << reader;
        QTest::newRow("negative length " + r) << word(-5) + QByteArray(8, 'a') << reader;
        QTest::newRow("length only " + r) << word(3) << reader;
        QTest::newRow("unterminated " + r) << word(2) + QByteArray(8, 'a') << reader;
    }
    QTest::newRow("binder index out of table") << word(1) + word(0) << 2;
    QTest::newRow("binder negative index") << word(1) + word(-1) << 2;
    QTest::newRow("binder unknown kind") << word(7) + word(0) << 2;
    QTest::newRow("binder truncated") << word(1) << 2;
}

void tst_Parcel::lyingLengthsAreRejected()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, reader);
    Parcel p;
    p.write(bytes.constData(), size_t(bytes.size()));
    {
        p.setDataPosition(0);
        String16 s16;
        String8 s8;
        sp<IBinder> b;
        status_t err = NO_ERROR;
        switch (reader) {
        case 0:
            err = p.readString16(&s16);
            QCOMPARE(s16.size(), size_t(0));
            break;
        case 1:
            err = p.readString8(&s8);
            QCOMPARE(s8.size(), size_t(0));
            break;
        case 2:
            err = p.readStrongBinder(&b);
            QVERIFY(b == nullptr);
            break;
        case 3:
            err = p.enforceInterface(String16("x")) ? NO_ERROR : BAD_VALUE;
            break;
        }
        QVERIFY(err != NO_ERROR);
        QCOMPARE(p.dataPosition(), size_t(0));
    }
}

void tst_Parcel::binderObjectsKeepIdentity()
{
    sp<IBinder> a = new BBinder;
    sp<IBinder> b = new BBinder;
    Parcel p;
    p.writeStrongBinder(a);
    p.writeStrongBinder(nullptr);
    p.writeStrongBinder(b);
    p.writeStrongBinder(a);
    p.setDataPosition(0);
    QVERIFY(p.readStrongBinder() == a);
    sp<IBinder> none = a;
    QCOMPARE(p.readStrongBinder(&none), UNEXPECTED_NULL);
    QVERIFY(none == nullptr);
    QVERIFY(p.readStrongBinder() == b);
    QVERIFY(p.readStrongBinder() == a);
    p.freeData();
    QCOMPARE(p.dataSize(), size_t(0));
    QCOMPARE(p.objectCount(), size_t(0));
}

void tst_Parcel::interfaceTokenIsEnforced()
{
    Parcel p;
    p.writeInterfaceToken(String16("com.velta.IDemo"));
    p.writeInt32(1);
    p.setDataPosition(0);
    QVERIFY(!p.enforceInterface(String16("com.velta.IDemoX")));
    p.setDataPosition(0);
    QVERIFY(!p.enforceInterface(String16("com.velta.IDem")));
    p.setDataPosition(0);
    QVERIFY(p.enforceInterface(String16("com.velta.IDemo")));
    QCOMPARE(p.readInt32(), 1);
}

QTEST_GUILESS_MAIN(tst_Parcel)
#include "tst_parcel.moc"
