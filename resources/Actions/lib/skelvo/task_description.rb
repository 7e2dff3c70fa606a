# frozen_string_literal: true

module Skelvo
  # Raised when a task description file cannot be used at all.
  class TaskDescriptionError < StandardError; end

  # The task description file that Skelvo writes for one run:
  #
  #   ACTION: "<action path>"
  #   EVENT: "<event>"
  #   VARIABLE: "<key>" "<value>"      (one per variable, any order)
  #   ITEMS: "<item>" "<item>" ...     (last, only when there are items)
  #
  # Nothing is escaped except double quotes in the items of a files drop (and
  # in the values listed in ESCAPED_VARIABLES), so values and dropped text may
  # hold quotes and line breaks. A line therefore starts a new entry only when
  # it begins with one of the prefixes and the entry before it is complete,
  # that is, ends in a double quote; every other line continues the entry
  # before it. The ITEMS entry is always last and takes the rest of the file.
  class TaskDescription
    ACTION_PREFIX = 'ACTION: "'
    EVENT_PREFIX = 'EVENT: "'
    VARIABLE_PREFIX = 'VARIABLE: "'
    ITEMS_PREFIX = 'ITEMS: "'
    PREFIXES = [ACTION_PREFIX, EVENT_PREFIX, VARIABLE_PREFIX, ITEMS_PREFIX].freeze

    # Skelvo writes these values with every double quote as \" (the tile's
    # folder and the names typed into the rename prompt); actions get them back
    # as they were.
    ESCAPED_VARIABLES = /\A(?:path|RENAMED_FILENAME_\d+)\z/

    attr_reader :action_path, :event, :variables, :items, :warnings

    def self.read(path)
      parse(File.binread(path).force_encoding(Encoding::UTF_8))
    rescue SystemCallError => e
      raise TaskDescriptionError, "Cannot read the task description file #{path} (#{e.message})"
    end

    def self.parse(text)
      new(text)
    end

    def self.unescape_quotes(text)
      text.gsub('\\"', '"')
    end

    def initialize(text)
      @variables = {}
      @items = []
      @warnings = []
      entries(text).each { |line_number, entry| take(line_number, entry) }
      raise TaskDescriptionError, "The task description has no ACTION line" if @action_path.nil?
      raise TaskDescriptionError, "The task description has no EVENT line" if @event.nil?

      @items = parse_items(@items_entry) if @items_entry
    end

    def files_drop?
      @variables["dragged_type"] == "files"
    end

    def to_h
      { "action" => @action_path, "event" => @event, "variables" => @variables, "items" => @items }
    end

    private

    # Pairs of [first line number, entry text].
    def entries(text)
      # The file never ends in a line break (the last entry ends with a quote);
      # tolerate one added by hand.
      lines = text.sub(/[\r\n]+\z/, "").split("\n", -1)
      result = []
      lines.each_with_index do |line, index|
        current = result.last
        starts_entry = current.nil? ||
                       (!current[1].start_with?(ITEMS_PREFIX) && complete?(current[1]) &&
                        PREFIXES.any? { |prefix| line.start_with?(prefix) })
        if starts_entry
          result << [index + 1, +line]
        else
          current[1] << "\n" << line
        end
      end
      result
    end

    def complete?(entry)
      return false unless entry.end_with?('"')

      if entry.start_with?(VARIABLE_PREFIX)
        body = entry[VARIABLE_PREFIX.length..]
        separator = body.index('" "')
        return !separator.nil? && body.length >= separator + 4
      end
      PREFIXES.any? { |prefix| entry.start_with?(prefix) && entry.length > prefix.length }
    end

    def take(line_number, entry)
      if entry.start_with?(ACTION_PREFIX)
        @action_path = quoted_value(entry, ACTION_PREFIX, line_number)
      elsif entry.start_with?(EVENT_PREFIX)
        @event = quoted_value(entry, EVENT_PREFIX, line_number)
      elsif entry.start_with?(VARIABLE_PREFIX)
        take_variable(entry, line_number)
      elsif entry.start_with?(ITEMS_PREFIX)
        @items_entry = entry
      else
        @warnings << "Ignoring unrecognised text on line #{line_number} of the task description"
      end
    end

    def quoted_value(entry, prefix, line_number)
      unless entry.end_with?('"') && entry.length > prefix.length
        @warnings << "Line #{line_number} of the task description has no closing quote"
        return entry[prefix.length..]
      end
      entry[prefix.length...-1]
    end

    # VARIABLE: "key" "value" -- keys never hold the separator '" "', so the key
    # ends at its first occurrence and the value is the rest without its quote.
    def take_variable(entry, line_number)
      body = entry[VARIABLE_PREFIX.length..]
      separator = body.index('" "')
      unless separator && body.end_with?('"') && body.length >= separator + 4
        # The entry may hold secrets, so only its position is reported.
        @warnings << "Ignoring a malformed VARIABLE entry on line #{line_number} of the task description"
        return
      end
      key = body[0...separator]
      value = body[(separator + 3)...-1]
      value = self.class.unescape_quotes(value) if ESCAPED_VARIABLES.match?(key)
      @variables[key] = value
    end

    # Files: each path in quotes, one blank between them, every quote inside a
    # path written as \". A '" "' can then only stand between two items (inside
    # a path each quote follows a backslash), which makes the split exact even
    # for paths that end in a backslash.
    # Anything else (dropped text, a URL): one item written as it is, so it is
    # everything between the first quote and the last.
    def parse_items(entry)
      body = entry[ITEMS_PREFIX.length..]
      unless body.end_with?('"') && !body.empty?
        @warnings << "The ITEMS line of the task description has no closing quote"
        body += '"'
      end
      body = body[0...-1]
      return [body] unless files_drop?
      return [""] if body.empty?

      body.split('" "', -1).map { |item| self.class.unescape_quotes(item) }
    end
  end
end
