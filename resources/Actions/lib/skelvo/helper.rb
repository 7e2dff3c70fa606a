# frozen_string_literal: true

module Skelvo
  # The object the runner hands to every action function. Each method writes
  # its command line(s) and returns once Skelvo has taken them in.
  class Helper
    DEFAULT_FOLDER_PROMPT = "Choose a folder"
    # Skelvo reads "[;n" in a message as a line break.
    LINE_BREAK = "[;n"

    def initialize(channel)
      @channel = channel
    end

    # Status text of the action's progress row.
    def begin_message(text)
      send_command("Begin_Message", text, __method__)
    end

    # true: the progress row shows a bar; false: a spinner.
    def determinate(flag)
      value = case flag
              when true, 1, "1" then "1"
              when false, nil, 0, "0" then "0"
              else raise ArgumentError, "determinate takes true or false, not #{flag.inspect}"
              end
      @channel.command("Determinate", value)
      nil
    end

    # The bar's position, 0 to 100 (values outside are clamped).
    def progress(percent)
      value = begin
        Float(percent)
      rescue TypeError, ArgumentError
        raise ArgumentError, "progress takes a number from 0 to 100, not #{percent.inspect}"
      end
      raise ArgumentError, "progress takes a finite number, not #{percent.inspect}" unless value.finite?

      @channel.command("Progress", self.class.format_percent(value.clamp(0.0, 100.0)))
      nil
    end

    # The notification text at the end of the run; "error" or "fail" in it
    # marks the run as failed.
    def finish_message(text)
      send_command("Finish_Message", text, __method__)
    end

    # Reports a failed run at once. It does not stop the action: return after it.
    def fail(text)
      send_command("Fail", text, __method__)
    end

    def url_title(text)
      send_command("URL_Title", text, __method__)
    end

    def url(text)
      send_command("URL", text, __method__)
    end

    def text(text)
      send_command("Text", text, __method__)
    end

    def error_title(text)
      send_command("Error_Title", text, __method__)
    end

    def error(text)
      send_command("Error", text, __method__)
    end

    def alert_title(text)
      send_command("Alert_Title", text, __method__)
    end

    def alert(text)
      send_command("Alert", text, __method__)
    end

    # Keeps the value in the tile's settings; it arrives in the variables of
    # later runs.
    def save_value(name, value)
      name_message = self.class.encode_message(name, "save_value name")
      value_message = self.class.encode_message(value, "save_value value")
      @channel.command("Save_Value_Name", name_message)
      @channel.command("Save_Value", value_message)
      nil
    end

    def remove_value(name)
      send_command("Remove_Value_Name", name, __method__)
    end

    # Tells Skelvo this run wrote the file, so a monitored folder does not take
    # it for a new arrival.
    def output_file(path)
      raise ArgumentError, "output_file needs a path" if path.nil? || path.to_s.empty?

      absolute = File.expand_path(path.to_s)
      @channel.command("Output_File", [absolute.b].pack("m0"))
      nil
    end

    # Puts the files on the Drop Bar. When one of them does not exist, nothing
    # is added and the run fails.
    def add_dropbar(paths)
      list = paths.is_a?(Array) ? paths : [paths]
      raise ArgumentError, "add_dropbar needs at least one path" if list.empty?

      messages = list.map do |path|
        raise ArgumentError, "add_dropbar needs paths, not #{path.inspect}" if path.nil? || path.to_s.empty?

        self.class.encode_message(File.expand_path(path.to_s), "add_dropbar path")
      end
      messages.each { |message| @channel.command("Add_Dropbar", message) }
      @channel.command("Complete_Add_Dropbar", "1")
      nil
    end

    # Asks the user for a folder; returns its path, or nil when the user
    # cancelled.
    def select_folder(prompt = nil)
      message = if prompt.nil? || self.class.blank?(prompt.to_s)
                  DEFAULT_FOLDER_PROMPT
                else
                  self.class.encode_message(prompt, "select_folder prompt")
                end
      answer = @channel.ask("Select_Folder", message)
      return nil if answer.nil? || answer == "0"

      answer
    end

    # A script run when the user clicks the notification at the end.
    def notification_script(script)
      send_command("Notification_AppleScript", script, __method__)
    end

    def self.encode_message(message, what = "message")
      raise ArgumentError, "#{what} must not be nil" if message.nil?

      text = message.to_s
      text = text.b unless text.valid_encoding?
      encoded = text.gsub(/\r\n|\r|\n/, LINE_BREAK)
      # Skelvo trims the message; nothing left means no command at all.
      raise ArgumentError, "#{what} must not be empty or blank" if blank?(encoded)

      encoded
    end

    def self.blank?(text)
      text = text.b unless text.valid_encoding?
      text.match?(/\A[[:space:]]*\z/)
    end

    def self.format_percent(value)
      return value.to_i.to_s if value == value.floor

      format("%.2f", value).sub(/\.?0+\z/, "")
    end

    private

    def send_command(command, message, method_name)
      @channel.command(command, self.class.encode_message(message, "#{method_name} message"))
      nil
    end
  end
end
