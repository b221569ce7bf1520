#include "DLConsoleReaderClient.h"

#include "Download.h"
#include "DownloadManager.h"
#include "TextEscape.h"

#include <QDebug>
#include <QSocketNotifier>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace dlm {

namespace {
const QString kShellClientID = QStringLiteral("shell");
const QString kShellDirectory = QStringLiteral("/tmp/");
const QString kAllClients = QStringLiteral("*");
const qint64 kReadChunk = 64 * 1024;

// One console message in the stream layout: every piece is followed by one blank, the last one
// included. Qt 6's debug stream drops that last blank and escapes quoted strings, so the line is
// composed here, as UTF-8, and written as Qt's own handler writes a message: to standard error.
class ConsoleLine {
public:
    // With a batch, the line joins it instead of going out on its own.
    explicit ConsoleLine(QByteArray *batch = nullptr) : batch(batch) { }
    ConsoleLine &text(const char *piece)
    {
        line += piece;
        line += ' ';
        return *this;
    }
    // Escaped as the log escapes: a value cannot forge or hide a line.
    ConsoleLine &value(QByteArrayView utf8)
    {
        line += '"';
        escaped(utf8);
        line += "\" ";
        return *this;
    }
    ConsoleLine &value(const char *utf8) { return value(QByteArrayView(utf8)); }
    ConsoleLine &value(const QString &piece) { return value(QByteArrayView(piece.toUtf8())); }
    // A refusal's reason may quote a caller's value: escaped, unquoted.
    ConsoleLine &words(const QString &piece)
    {
        escaped(piece.toUtf8());
        line += ' ';
        return *this;
    }
    ConsoleLine &number(qint64 piece)
    {
        line += QByteArray::number(piece);
        line += ' ';
        return *this;
    }
    // Why a Stalled download waits: "waiting for network", or the fault its retry follows.
    ConsoleLine &whyStalled(const Download *download)
    {
        if (download->state != Download::Stalled || download->details().failureReason.isEmpty())
            return *this;
        return text(" reason:").value(download->details().failureReason);
    }
    ~ConsoleLine()
    {
        line += '\n';
        if (batch)
            *batch += line;
        else
            writeOut(line);
    }
    // One write for many lines: the console's stream is unbuffered.
    static void send(QByteArray *batch)
    {
        writeOut(*batch);
        batch->clear();
    }

private:
    void escaped(QByteArrayView utf8) { line += escapeText(utf8.data(), size_t(utf8.size())); }
    // Through stdio's unbuffered stderr, as Qt's handler writes: one write call, retried when
    // short, and in order with everything else the process prints there.
    static void writeOut(QByteArrayView bytes)
    {
        if (!bytes.isEmpty())
            std::fwrite(bytes.data(), 1, size_t(bytes.size()), stderr);
    }

    QByteArray line;
    QByteArray *batch;
};

// The part before the last blank (or the whole line) is the command; the argument has no blank.
QString commandWord(const QString &line)
{
    const int lastBlank = line.lastIndexOf(QLatin1Char(' '));
    return (lastBlank < 0 ? line : line.left(lastBlank)).trimmed();
}

// A byte count: a decimal number from 0 to the largest signed 64-bit value.
bool isSize(const QString &argument)
{
    bool ok = false;
    return argument.toLongLong(&ok, 10) >= 0 && ok;
}

void printDownload(const char *label, const Download *download, QByteArray *batch = nullptr)
{
    ConsoleLine(batch)
        .text(label)
        .text(" uniqueID:")
        .value(download->utf8(RecordText::Id))
        .text(" clientID:")
        .value(download->clientID)
        .text(" file:")
        .value(download->utf8(RecordText::Path))
        .text(" status: ")
        .value(download->stateAsString())
        .text(" DL:")
        .number(download->amountDownloaded)
        .text("/")
        .number(download->totalSize)
        .whyStalled(download);
}
} // namespace

DLConsoleReaderClient::DLConsoleReaderClient(DownloadManager *manager)
    : QObject(nullptr), manager(manager), inputNotifier(nullptr)
{
    // A directory the operator set in an earlier run stays.
    manager->ensureDownloadPath(kShellClientID, kShellDirectory);
    // A service started with standard input closed has nothing to listen to.
    if (::fcntl(0, F_GETFD) < 0)
        return;
    inputNotifier = new QSocketNotifier(0, QSocketNotifier::Read);
    connect(inputNotifier, &QSocketNotifier::activated, this, &DLConsoleReaderClient::text);
}

DLConsoleReaderClient::~DLConsoleReaderClient()
{
    delete inputNotifier;
}

void DLConsoleReaderClient::text()
{
    // One read per activation: the notifier fires again while more input is waiting, and a
    // second read could block. Every complete line in the buffer is handled now, since a stream
    // reader would keep lines that arrived together hidden from the notifier.
    const qsizetype oldSize = pendingInput.size();
    pendingInput.resize(oldSize + kReadChunk);
    ssize_t received;
    do {
        received = ::read(0, pendingInput.data() + oldSize, size_t(kReadChunk));
    } while (received < 0 && errno == EINTR);
    const bool endOfInput = received == 0 || (received < 0 && errno != EAGAIN);
    pendingInput.resize(oldSize + (received > 0 ? received : 0));

    // Only the new bytes can end the first line: a long line is not scanned again per chunk.
    qsizetype start = 0;
    for (qsizetype end = pendingInput.indexOf('\n', oldSize); end >= 0;
         start = end + 1, end = pendingInput.indexOf('\n', start)) {
        const QByteArray rawLine = pendingInput.mid(start, end - start);
        if (!handleLine(rawLine))
            return; // "quit": this client has been destroyed
    }
    pendingInput.remove(0, start);

    if (endOfInput) {
        stopListening();
        if (!pendingInput.isEmpty()) {
            const QByteArray lastLine = pendingInput;
            pendingInput.clear();
            handleLine(lastLine);
        }
    }
}

bool DLConsoleReaderClient::handleLine(const QByteArray &rawLine)
{
    QByteArray bytes = rawLine;
    if (bytes.endsWith('\r'))
        bytes.chop(1);
    const QString line = QString::fromUtf8(bytes);
    HandleText(line);
    return commandWord(line) != QLatin1String("quit");
}

void DLConsoleReaderClient::stopListening()
{
    // At end of input the descriptor stays readable forever; keep the service running, quietly.
    // Only the notifier's activation gets here, so there is one.
    inputNotifier->setEnabled(false);
}

void DLConsoleReaderClient::HandleText(const QString &line)
{
    const QString command = commandWord(line);
    const int lastBlank = line.lastIndexOf(QLatin1Char(' '));
    const QString argument = lastBlank < 0 ? QString() : line.mid(lastBlank + 1).trimmed();
    // A command's own lines come after every change told before it. A create prints none, so
    // the creates of one read are stored with one commit.
    if (command != QLatin1String("create"))
        manager->settleReports();

    if (order(line.split(QLatin1Char(' '), Qt::SkipEmptyParts))) {
        return;
    } else if (command == QLatin1String("create")) {
        manager->createDownload(kShellClientID, argument, QString(), QString());
    } else if (command == QLatin1String("remove")) {
        if (argument == QLatin1String("all")) // every download of every client
            manager->removeAllDownloads();
        else if (!argument.isEmpty())
            manager->removeDownload(argument);
    } else if (command == QLatin1String("pause")) {
        manager->pauseDownload(argument);
    } else if (command == QLatin1String("resume")) {
        manager->resumeDownload(argument);
    } else if (command == QLatin1String("restart")) {
        manager->restartDownload(argument);
    } else if (command == QLatin1String("status")) {
        getDownload(argument);
    } else if (command == QLatin1String("list")) {
        getDownloadList(kAllClients);
    } else if (command == QLatin1String("download_possible") && isSize(argument)) {
        qDebug("download_possible result: %d.",
            int(manager->checkDownloadPossible(kShellClientID, argument.toLongLong()).status));
    } else if (command == QLatin1String("download_path")) {
        setPath(argument);
    } else if (command == QLatin1String("quit")) {
        manager->quit(); // destroys this client: nothing of it may be touched after this call
    } else if (command == QLatin1String("help")) {
        help();
    } else {
        ConsoleLine().text("invalid format: ").value(line);
    }
}

bool DLConsoleReaderClient::order(const QStringList &words)
{
    const QString what = words.value(0);
    const bool background = what == QLatin1String("background");
    if (!background && what != QLatin1String("rate") && what != QLatin1String("priority"))
        return false;
    bool numeric = background;
    const qint64 value = background ? 0 : words.value(2).toLongLong(&numeric, 10);
    const bool on = words.value(1) == QLatin1String("on");
    if (words.size() != (background ? 2 : 3) || !numeric
        || (background && !on && words.value(1) != QLatin1String("off"))) {
        ConsoleLine().text("invalid format: ").value(words.join(QLatin1Char(' ')));
        return true;
    }
    const Outcome<DownloadManager::ControlStatus> outcome = background
        ? manager->setBackgroundMode(on)
        : what == QLatin1String("rate")
        ? manager->setRateLimit(words[1], value)
        : manager->setPriority(words[1], int(qBound(qint64(INT_MIN), value, qint64(INT_MAX))));
    ConsoleLine line;
    line.text(qUtf8Printable(what)).value(words.mid(1).join(QLatin1Char(' ')));
    if (outcome.done())
        line.text("done.");
    else
        line.text("refused:").words(outcome.reason);
    return true;
}

void DLConsoleReaderClient::setPath(const QString &argument)
{
    const QByteArray path = argument.toUtf8();
    const Outcome<DownloadManager::PathStatus> outcome
        = manager->setDownloadPath(kShellClientID, argument);
    if (outcome.done())
        qDebug("Path %s set.", path.constData());
    else
        qDebug("Path %s refused: %s.", path.constData(), qUtf8Printable(outcome.reason));
}

void DLConsoleReaderClient::help()
{
    qDebug("Console help:");
    qDebug("help: display help");
    qDebug("quit: quit the application");
    qDebug("create url: download an url");
    qDebug("remove id: remove the download with id");
    qDebug("status id: display download status with id");
    qDebug("list clientID: display download status with id");
    qDebug("download_possible size:");
    qDebug("download_path path:");
    qDebug("rate id|all bytes_per_second: limit a download or all together (0: none)");
    qDebug("priority id n: order among waiting downloads, -100 to 100, higher first");
    qDebug("background on|off: the background rate limit in place of the overall one");
    qDebug("Enter your command:");
}

void DLConsoleReaderClient::updateDownloadEntry(Download *download)
{
    ConsoleLine(&told)
        .text("Download update with file:")
        .value(download->utf8(RecordText::Path))
        .text(" status: ")
        .value(download->stateAsString())
        .text(" DL: ")
        .number(download->amountDownloaded)
        .text("/")
        .number(download->totalSize)
        .whyStalled(download);
}

void DLConsoleReaderClient::reportsStored()
{
    ConsoleLine::send(&told);
}

void DLConsoleReaderClient::getDownloadList(const QString &clientID)
{
    if (clientID.isEmpty()) {
        qDebug("uniqueID must be specified.");
        return;
    }
    qDebug("List of downloads:");
    const QList<Download *> downloads = manager->getDownloadList(clientID);
    if (downloads.isEmpty()) {
        ConsoleLine().text("No downloads");
        return;
    }
    QByteArray batch;
    for (const Download *download : downloads) {
        printDownload("Download:", download, &batch);
        if (batch.size() >= 32 * 1024)
            ConsoleLine::send(&batch);
    }
    ConsoleLine::send(&batch);
}

void DLConsoleReaderClient::getDownload(const QString &uniqueID)
{
    const Download *download = manager->getDownload(uniqueID);
    if (!download) {
        qDebug("No download found.");
        return;
    }
    printDownload("Download status:", download);
}

} // namespace dlm
