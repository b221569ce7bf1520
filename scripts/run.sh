#!/usr/bin/env bash
# Installs what is missing, builds, and runs the service in the foreground with its console on
# standard input. Database and downloads go under $DLM_HOME (default /var/lib/downloadmanager).
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

install_packages
build "$ROOT/build"

DLM_HOME="${DLM_HOME:-/var/lib/downloadmanager}"
mkdir -p "$DLM_HOME/db" "$DLM_HOME/binder"
INI="$ROOT/build/bin/downloadmanager.ini"
if [ ! -f "$INI" ]; then
    printf '[General]\ndownload_database_path=%s\n' "$DLM_HOME/db" > "$INI"
fi
export DL_CONSOLE_READER_ENABLE="${DL_CONSOLE_READER_ENABLE:-1}"
export BINDER_SOCKET_DIR="${BINDER_SOCKET_DIR:-$DLM_HOME/binder}"
echo "Settings: $INI; IPC sockets: $BINDER_SOCKET_DIR; type 'help' for commands, 'quit' to stop."
exec "$ROOT/build/bin/downloadmanager"
