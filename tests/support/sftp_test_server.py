#!/usr/bin/python3
"""An SFTP server on a loopback port for tests: password logins and chosen faults.

Serves the folder ROOT (remote paths are taken inside it). Prints "PORT <n>" once listening.
Faults: --drop-after N closes the connection once N bytes of file data have arrived;
--stall-after N stops answering from then on; --deny NAME refuses every path with a
component NAME for writing (permission denied).
"""
import argparse
import os
import socket
import sys
import threading
import time

import paramiko
from paramiko import SFTPAttributes, SFTPHandle, SFTPServer, SFTPServerInterface
from paramiko.sftp import SFTP_OK, SFTP_PERMISSION_DENIED

args = None
received = 0
lock = threading.Lock()


def local(path, writing=True):
    parts = [p for p in path.split("/") if p not in ("", ".")]
    if writing and args.deny in parts:
        return None
    return os.path.join(args.root, *parts)


def errno_code(error):
    return SFTPServer.convert_errno(error.errno)


class Handle(SFTPHandle):
    def __init__(self, transport, file, flags):
        super().__init__(flags)
        self.transport = transport
        self.writefile = file
        self.readfile = file

    def write(self, offset, data):
        global received
        with lock:
            received += len(data)
            total = received
        if args.stall_after is not None and total > args.stall_after:
            while True:
                time.sleep(3600)
        if args.drop_after is not None and total > args.drop_after:
            self.transport.close()
            return SFTP_PERMISSION_DENIED
        return super().write(offset, data)


class Server(SFTPServerInterface):
    def __init__(self, server, *rest, **options):
        super().__init__(server, *rest, **options)
        self.transport = server.transport

    def _stat(self, path, follow):
        target = local(path, writing=False)
        try:
            return SFTPAttributes.from_stat(os.stat(target) if follow else os.lstat(target))
        except OSError as e:
            return errno_code(e)

    def stat(self, path):
        return self._stat(path, True)

    def lstat(self, path):
        return self._stat(path, False)

    def open(self, path, flags, attr):
        target = local(path)
        if target is None:
            return SFTP_PERMISSION_DENIED
        try:
            fd = os.open(target, flags, 0o644)
            mode = "r+b" if flags & os.O_RDWR else ("wb" if flags & os.O_WRONLY else "rb")
            if flags & os.O_APPEND:
                mode = "ab"
            return Handle(self.transport, os.fdopen(fd, mode), flags)
        except OSError as e:
            return errno_code(e)

    def mkdir(self, path, attr):
        target = local(path)
        if target is None:
            return SFTP_PERMISSION_DENIED
        try:
            os.mkdir(target)
            return SFTP_OK
        except OSError as e:
            return errno_code(e)

    def remove(self, path):
        target = local(path)
        if target is None:
            return SFTP_PERMISSION_DENIED
        try:
            os.remove(target)
            return SFTP_OK
        except OSError as e:
            return errno_code(e)

    def rename(self, old, new):
        # As OpenSSH's server does for SFTP version 3: an existing target is refused.
        source, target = local(old), local(new)
        if source is None or target is None:
            return SFTP_PERMISSION_DENIED
        if os.path.exists(target):
            return paramiko.sftp.SFTP_FAILURE
        try:
            os.rename(source, target)
            return SFTP_OK
        except OSError as e:
            return errno_code(e)


class Login(paramiko.ServerInterface):
    def get_allowed_auths(self, username):
        return "password"

    def check_auth_password(self, username, password):
        ok = username == args.user and password == args.password
        return paramiko.AUTH_SUCCESSFUL if ok else paramiko.AUTH_FAILED

    def check_channel_request(self, kind, chanid):
        return paramiko.OPEN_SUCCEEDED if kind == "session" else paramiko.OPEN_FAILED_ADMINISTRATIVELY_PROHIBITED


def serve(connection, host_key):
    transport = paramiko.Transport(connection)
    transport.add_server_key(host_key)
    transport.set_subsystem_handler("sftp", SFTPServer, Server)
    login = Login()
    login.transport = transport
    transport.start_server(server=login)
    while transport.is_active():
        time.sleep(0.1)


def main():
    global args
    parser = argparse.ArgumentParser()
    parser.add_argument("--root", required=True)
    parser.add_argument("--host-key", required=True)
    parser.add_argument("--user", required=True)
    parser.add_argument("--password", required=True)
    parser.add_argument("--drop-after", type=int)
    parser.add_argument("--stall-after", type=int)
    parser.add_argument("--deny", default="\0")
    args = parser.parse_args()
    host_key = paramiko.Ed25519Key.from_private_key_file(args.host_key)
    listener = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.bind(("127.0.0.1", 0))
    listener.listen(8)
    print("PORT", listener.getsockname()[1], flush=True)
    while True:
        connection, _ = listener.accept()
        threading.Thread(target=serve, args=(connection, host_key), daemon=True).start()


if __name__ == "__main__":
    sys.exit(main())
