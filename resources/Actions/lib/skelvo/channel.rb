# frozen_string_literal: true

require "stringio"

module Skelvo
  # The action's link to Skelvo: its standard output and error (one pipe on
  # Skelvo's side) and its standard input. Skelvo answers every chunk it reads,
  # when the chunk is two bytes or longer, with one newline on standard input;
  # a chunk that starts with "Select_Folder:" is answered with the chosen folder
  # instead. To keep one chunk per answer, everything is sent as single writes,
  # each followed by waiting for its answer, and no write is ever one byte long.
  class Channel
    F_SETPIPE_SZ = 1031
    F_GETPIPE_SZ = 1032
    # Skelvo reads whatever the pipe holds in one go, so a command up to the
    # pipe's size arrives whole; a larger pipe lets long results (a Text or URL
    # command) through.
    WANTED_PIPE_SIZE = 1 << 20
    # Plain output is sent in pieces of at most this size.
    PLAIN_PIECE_SIZE = 32 * 1024
    READ_SIZE = 4096

    attr_reader :pipe_capacity, :input

    def initialize(input: IO.for_fd(0, autoclose: false), output: IO.for_fd(1, autoclose: false),
                   error: IO.for_fd(2, autoclose: false))
      @input = input
      @output = output
      @error = error
      [@input, @output, @error].each(&:binmode)
      @read_buffer = +"".b
      @input_closed = false
      @streams = []
      @pipe_capacity = grow_pipe(@output)
    end

    # The replacements for $stdout and $stderr. Whatever an action prints goes
    # out through the channel, so printing does not upset the answers.
    def stdout_stream
      @stdout_stream ||= register(OutputStream.new(self, @output))
    end

    def stderr_stream
      @stderr_stream ||= register(OutputStream.new(self, @error))
    end

    # Writes "name: message" and waits until Skelvo has taken it in. The message
    # must already be a single line.
    def command(name, message)
      line = protocol_line(name, message)
      flush_streams
      discard_stray_input
      send_chunk(@output, line)
    end

    # Writes "name: message" and returns the line Skelvo answers with (which
    # replaces the acknowledgement), or nil when standard input has closed.
    def ask(name, message)
      line = protocol_line(name, message)
      flush_streams
      discard_stray_input
      write_all(@output, line)
      loop do
        answer = read_line
        return nil if answer.nil?
        # An empty line can only be an acknowledgement of output that reached
        # the pipe without the channel (a child process writing to it).
        return answer.force_encoding(Encoding::UTF_8) unless answer.empty?
      end
    end

    # Sends bytes as one chunk through +io+ and waits for the acknowledgement.
    def send_chunk(io, data)
      data = data.b
      if data.bytesize == 1
        # Skelvo ignores a single byte without answering it, and a lone byte
        # could join the next write into a chunk that is answered once for two
        # writes. A lone line break shows nothing anyway; another byte gets one.
        return if data == "\n"

        data += "\n"
      end
      return if data.empty?

      write_all(io, data)
      wait_for_acknowledgement
    end

    def flush_streams
      @streams.each(&:flush)
    end

    # For exits that must not wait for Skelvo (a signal): send what is
    # buffered and leave.
    def flush_streams_without_waiting
      @input_closed = true
      @streams.each(&:flush)
    rescue SystemCallError, IOError
      nil
    end

    private

    def register(stream)
      @streams << stream
      stream
    end

    def protocol_line(name, message)
      line = "#{name.to_s.b}: #{message.to_s.b}\n".b
      if @pipe_capacity && line.bytesize > @pipe_capacity
        raise ArgumentError, "#{name} message of #{line.bytesize} bytes is longer than the " \
                             "#{@pipe_capacity} bytes Skelvo can take in at once"
      end
      line
    end

    def grow_pipe(io)
      return nil unless io.stat.pipe?

      begin
        io.fcntl(F_SETPIPE_SZ, WANTED_PIPE_SIZE)
      rescue SystemCallError
        # Keep the size the pipe has (the system limit may be lower).
      end
      io.fcntl(F_GETPIPE_SZ)
    rescue SystemCallError, NotImplementedError, IOError
      nil
    end

    def write_all(io, data)
      written = 0
      written += io.syswrite(data.byteslice(written, data.bytesize - written)) while written < data.bytesize
    end

    def wait_for_acknowledgement
      read_line
    end

    # One line without its line break, as bytes; nil once input has ended.
    def read_line
      loop do
        if (newline = @read_buffer.index("\n"))
          line = @read_buffer.slice!(0..newline)
          return line.chomp("\n")
        end
        return take_rest if @input_closed

        begin
          @read_buffer << @input.sysread(READ_SIZE)
        rescue EOFError, Errno::EBADF, IOError
          @input_closed = true
        end
      end
    end

    def take_rest
      return nil if @read_buffer.empty?

      rest = @read_buffer.dup
      @read_buffer.clear
      rest
    end

    # Before a command, nothing is owed to the action, so whatever waits on
    # standard input answers output written around the channel; it would
    # otherwise be taken for the next acknowledgement.
    def discard_stray_input
      @read_buffer.clear
      return if @input_closed

      while IO.select([@input], nil, nil, 0)
        begin
          @input.sysread(READ_SIZE)
        rescue EOFError, Errno::EBADF, IOError
          @input_closed = true
          break
        end
      end
    end
  end

  # An IO-like stand-in for $stdout and $stderr: text is kept until a line is
  # complete (or the stream is flushed) and then sent as one acknowledged chunk.
  class OutputStream
    def initialize(channel, io)
      @channel = channel
      @io = io
      @buffer = +"".b
    end

    def write(*objects)
      objects.sum do |object|
        text = object.to_s.b
        @buffer << text
        text.bytesize
      end.tap { send_complete_lines }
    end

    def <<(object)
      write(object)
      self
    end

    def print(*objects)
      write(capture { |io| io.print(*objects) })
      nil
    end

    def puts(*objects)
      write(capture { |io| io.puts(*objects) })
      nil
    end

    def printf(format, *arguments)
      write(Kernel.format(format, *arguments))
      nil
    end

    def putc(character)
      write(capture { |io| io.putc(character) })
      character
    end

    def flush
      data = @buffer
      @buffer = +"".b
      send_pieces(data)
      self
    end

    def fsync
      flush
      0
    end

    def sync
      true
    end

    def sync=(value)
      value
    end

    def fileno
      @io.fileno
    end

    def tty?
      false
    end
    alias isatty tty?

    def closed?
      false
    end

    def external_encoding
      Encoding::UTF_8
    end

    def internal_encoding
      nil
    end

    def binmode
      self
    end

    private

    def capture
      io = StringIO.new(+"")
      yield io
      io.string
    end

    def send_complete_lines
      last_newline = @buffer.rindex("\n")
      if last_newline
        data = @buffer.slice!(0..last_newline)
        send_pieces(data)
      end
      flush if @buffer.bytesize >= Channel::PLAIN_PIECE_SIZE
    end

    def send_pieces(data)
      until data.empty?
        size = data.bytesize
        if size > Channel::PLAIN_PIECE_SIZE
          cut = data.rindex("\n", Channel::PLAIN_PIECE_SIZE - 1)
          size = cut ? cut + 1 : Channel::PLAIN_PIECE_SIZE
        end
        @channel.send_chunk(@io, data.byteslice(0, size))
        data = data.byteslice(size, data.bytesize - size)
      end
    end
  end
end
