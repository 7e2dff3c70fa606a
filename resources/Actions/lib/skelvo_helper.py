"""The helper that Skelvo's runner hands to every Python action function.

Each helper method writes its command line(s) ("Command: message") to standard
output and returns once Skelvo has taken them in. Skelvo answers every chunk it
reads, when the chunk is two bytes or longer, with one newline on standard
input; a chunk that starts with "Select_Folder:" is answered with the chosen
folder instead. To keep one chunk per answer, everything goes out as single
writes, each followed by waiting for its answer, and no write is ever one byte
long. Whatever the action prints goes through the same channel.
"""

import base64
import io
import math
import os
import select

DEFAULT_FOLDER_PROMPT = "Choose a folder"
# Skelvo reads "[;n" in a message as a line break.
LINE_BREAK = "[;n"

_F_SETPIPE_SZ = 1031
_F_GETPIPE_SZ = 1032
# Skelvo reads whatever the pipe holds in one go, so a command up to the pipe's
# size arrives whole; a larger pipe lets long results through.
_WANTED_PIPE_SIZE = 1 << 20
# Plain output is sent in pieces of at most this size.
PLAIN_PIECE_SIZE = 32 * 1024
_READ_SIZE = 4096


class Channel:
    """Standard output and error (one pipe on Skelvo's side) and standard input."""

    def __init__(self, input_fd=0, output_fd=1, error_fd=2):
        self._input = input_fd
        self._output = output_fd
        self._error = error_fd
        self._read_buffer = bytearray()
        self._input_closed = False
        self._streams = []
        self.pipe_capacity = _grow_pipe(output_fd)
        self.stdout = self._register(OutputStream(self, output_fd))
        self.stderr = self._register(OutputStream(self, error_fd))

    def _register(self, stream):
        self._streams.append(stream)
        return stream

    def command(self, name, message):
        """Writes "name: message" (a single line) and waits until Skelvo has taken it in."""
        line = self._protocol_line(name, message)
        self.flush_streams()
        self._discard_stray_input()
        self.send_chunk(self._output, line)

    def ask(self, name, message):
        """Writes "name: message" and returns Skelvo's answer line, or None once input has ended."""
        line = self._protocol_line(name, message)
        self.flush_streams()
        self._discard_stray_input()
        _write_all(self._output, line)
        while True:
            answer = self._read_line()
            if answer is None:
                return None
            # An empty line can only be an acknowledgement of output that reached
            # the pipe without the channel (a child process writing to it).
            if answer:
                return answer.decode("utf-8", "surrogateescape")

    def send_chunk(self, fd, data):
        """Sends bytes as one chunk through fd and waits for the acknowledgement."""
        data = bytes(data)
        if len(data) == 1:
            # Skelvo ignores a single byte without answering it, and a lone byte
            # could join the next write into a chunk that is answered once for two
            # writes. A lone line break shows nothing anyway; another byte gets one.
            if data == b"\n":
                return
            data += b"\n"
        if not data:
            return
        _write_all(fd, data)
        self._read_line()

    def flush_streams(self):
        for stream in self._streams:
            stream.flush()

    def _protocol_line(self, name, message):
        line = f"{name}: {message}\n".encode("utf-8", "surrogateescape")
        if self.pipe_capacity and len(line) > self.pipe_capacity:
            raise ValueError(
                f"{name} message of {len(line)} bytes is longer than the "
                f"{self.pipe_capacity} bytes Skelvo can take in at once"
            )
        return line

    def _read_line(self):
        """One line without its line break, as bytes; None once input has ended."""
        while True:
            newline = self._read_buffer.find(b"\n")
            if newline >= 0:
                line = bytes(self._read_buffer[:newline])
                del self._read_buffer[: newline + 1]
                return line
            if self._input_closed:
                if not self._read_buffer:
                    return None
                rest = bytes(self._read_buffer)
                self._read_buffer.clear()
                return rest
            try:
                chunk = os.read(self._input, _READ_SIZE)
            except OSError:
                chunk = b""
            if chunk:
                self._read_buffer += chunk
            else:
                self._input_closed = True

    def _discard_stray_input(self):
        # Before a command nothing is owed to the action, so whatever waits on
        # standard input answers output written around the channel; it would
        # otherwise be taken for the next acknowledgement.
        self._read_buffer.clear()
        while not self._input_closed:
            try:
                ready, _, _ = select.select([self._input], [], [], 0)
            except (OSError, ValueError):
                return
            if not ready:
                return
            try:
                chunk = os.read(self._input, _READ_SIZE)
            except OSError:
                chunk = b""
            if not chunk:
                self._input_closed = True


def _grow_pipe(fd):
    try:
        import fcntl
        import stat

        if not stat.S_ISFIFO(os.fstat(fd).st_mode):
            return None
        try:
            fcntl.fcntl(fd, _F_SETPIPE_SZ, _WANTED_PIPE_SIZE)
        except OSError:
            pass  # keep the size the pipe has; the system limit may be lower
        return fcntl.fcntl(fd, _F_GETPIPE_SZ)
    except (OSError, ImportError):
        return None


def _write_all(fd, data):
    view = memoryview(data)
    while view:
        written = os.write(fd, view)
        view = view[written:]


class OutputStream(io.TextIOBase):
    """Stands in for sys.stdout and sys.stderr: text is kept until a line is
    complete (or the stream is flushed) and then sent as one acknowledged chunk."""

    def __init__(self, channel, fd):
        super().__init__()
        self._channel = channel
        self._fd = fd
        self._pending = bytearray()
        self.buffer = _BinaryStream(self)

    @property
    def encoding(self):
        return "utf-8"

    @property
    def errors(self):
        return "surrogateescape"

    def writable(self):
        return True

    def isatty(self):
        return False

    def fileno(self):
        return self._fd

    def write(self, text):
        if not isinstance(text, str):
            raise TypeError(f"write() argument must be str, not {type(text).__name__}")
        self.write_bytes(text.encode("utf-8", "surrogateescape"))
        return len(text)

    def write_bytes(self, data):
        self._pending += data
        last_newline = self._pending.rfind(b"\n")
        if last_newline >= 0:
            complete = bytes(self._pending[: last_newline + 1])
            del self._pending[: last_newline + 1]
            self._send_pieces(complete)
        if len(self._pending) >= PLAIN_PIECE_SIZE:
            self.flush()

    def flush(self):
        data = bytes(self._pending)
        self._pending.clear()
        self._send_pieces(data)

    def close(self):
        # The descriptor belongs to the process, not to this stream.
        self.flush()

    def _send_pieces(self, data):
        while data:
            size = len(data)
            if size > PLAIN_PIECE_SIZE:
                cut = data.rfind(b"\n", 0, PLAIN_PIECE_SIZE)
                size = cut + 1 if cut >= 0 else PLAIN_PIECE_SIZE
            self._channel.send_chunk(self._fd, data[:size])
            data = data[size:]


class _BinaryStream:
    """sys.stdout.buffer for code that writes bytes."""

    def __init__(self, stream):
        self._stream = stream

    def write(self, data):
        data = bytes(data)
        self._stream.write_bytes(data)
        return len(data)

    def flush(self):
        self._stream.flush()

    def writable(self):
        return True

    def fileno(self):
        return self._stream.fileno()

    def isatty(self):
        return False


def encode_message(message, what="message"):
    """The message as one protocol line; ValueError when nothing would be left."""
    if message is None:
        raise ValueError(f"{what} must not be None")
    text = str(message)
    encoded = text.replace("\r\n", LINE_BREAK).replace("\r", LINE_BREAK).replace("\n", LINE_BREAK)
    # Skelvo trims the message; nothing left means no command at all.
    if _blank(encoded):
        raise ValueError(f"{what} must not be empty or blank")
    return encoded


def _blank(text):
    return not text.strip()


def format_percent(value):
    if value == math.floor(value):
        return str(int(value))
    text = f"{value:.2f}".rstrip("0")
    return text.rstrip(".")


class Helper:
    """The object passed to dragged(), clicked(), test_connection() and authorize()."""

    def __init__(self, channel):
        self._channel = channel

    def begin_message(self, text):
        """Status text of the action's progress row."""
        self._send("Begin_Message", text, "begin_message")

    def determinate(self, flag):
        """True: the progress row shows a bar; False: a spinner."""
        if flag is True or flag == 1 or flag == "1":
            value = "1"
        elif flag is False or flag is None or flag == 0 or flag == "0":
            value = "0"
        else:
            raise ValueError(f"determinate takes True or False, not {flag!r}")
        self._channel.command("Determinate", value)

    def progress(self, percent):
        """The bar's position, 0 to 100 (values outside are clamped)."""
        try:
            value = float(percent)
        except (TypeError, ValueError):
            raise ValueError(f"progress takes a number from 0 to 100, not {percent!r}") from None
        if not math.isfinite(value):
            raise ValueError(f"progress takes a finite number, not {percent!r}")
        self._channel.command("Progress", format_percent(min(max(value, 0.0), 100.0)))

    def finish_message(self, text):
        """The notification text at the end; "error" or "fail" in it marks the run as failed."""
        self._send("Finish_Message", text, "finish_message")

    def fail(self, text):
        """Reports a failed run at once. It does not stop the action: return after it."""
        self._send("Fail", text, "fail")

    def url_title(self, text):
        self._send("URL_Title", text, "url_title")

    def url(self, text):
        self._send("URL", text, "url")

    def text(self, text):
        self._send("Text", text, "text")

    def error_title(self, text):
        self._send("Error_Title", text, "error_title")

    def error(self, text):
        self._send("Error", text, "error")

    def alert_title(self, text):
        self._send("Alert_Title", text, "alert_title")

    def alert(self, text):
        self._send("Alert", text, "alert")

    def save_value(self, name, value):
        """Keeps the value in the tile's settings; later runs find it in their variables."""
        name_message = encode_message(name, "save_value name")
        value_message = encode_message(value, "save_value value")
        self._channel.command("Save_Value_Name", name_message)
        self._channel.command("Save_Value", value_message)

    def remove_value(self, name):
        self._send("Remove_Value_Name", name, "remove_value")

    def output_file(self, path):
        """Tells Skelvo this run wrote the file, so a monitored folder does not take it for a new arrival."""
        if path is None or not os.fspath(path):
            raise ValueError("output_file needs a path")
        absolute = os.path.abspath(os.fsdecode(os.fspath(path)))
        encoded = base64.b64encode(absolute.encode("utf-8", "surrogateescape")).decode("ascii")
        self._channel.command("Output_File", encoded)

    def add_dropbar(self, paths):
        """Puts the files on the Drop Bar. When one does not exist, nothing is added and the run fails."""
        if isinstance(paths, (str, bytes, os.PathLike)):
            paths = [paths]
        paths = list(paths)
        if not paths:
            raise ValueError("add_dropbar needs at least one path")
        messages = []
        for path in paths:
            if path is None or not os.fspath(path):
                raise ValueError(f"add_dropbar needs paths, not {path!r}")
            absolute = os.path.abspath(os.fsdecode(os.fspath(path)))
            messages.append(encode_message(absolute, "add_dropbar path"))
        for message in messages:
            self._channel.command("Add_Dropbar", message)
        self._channel.command("Complete_Add_Dropbar", "1")

    def select_folder(self, prompt=None):
        """Asks the user for a folder; returns its path, or None when the user cancelled."""
        if prompt is None or _blank(str(prompt)):
            message = DEFAULT_FOLDER_PROMPT
        else:
            message = encode_message(prompt, "select_folder prompt")
        answer = self._channel.ask("Select_Folder", message)
        if answer is None or answer == "0":
            return None
        return answer

    def notification_script(self, script):
        """A script run when the user clicks the notification at the end."""
        self._send("Notification_AppleScript", script, "notification_script")

    def _send(self, command, message, method_name):
        self._channel.command(command, encode_message(message, f"{method_name} message"))
