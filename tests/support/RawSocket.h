#pragma once

#include <QString>

// Connects a plain stream socket to a Unix socket path, with a 10 s receive timeout, so tests can
// write hostile bytes that no well-behaved client would send. Returns the descriptor or -1.
int connectRawUnixSocket(const QString &path);
