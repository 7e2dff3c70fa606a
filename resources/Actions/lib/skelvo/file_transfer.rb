# frozen_string_literal: true

require "fileutils"
require "securerandom"

module Skelvo
  # Copies or moves dropped files and folders into the folder in the variable
  # "path": the work of "Copy Files", "Move Files", "Rename & Copy Files" and
  # "Rename & Move Files".
  #
  # Nothing at the destination is ever overwritten: a taken name gets a number
  # before its extension ("Report.pdf" becomes "Report 2.pdf", then
  # "Report 3.pdf"; a folder "Photos" becomes "Photos 2"). The name is claimed
  # with an exclusive create before anything is written, and the finished copy
  # is renamed over that claim, so a half-written copy never carries the final
  # name. A move is a rename where the file system allows it; across file
  # systems the item is copied completely, synced and put in place before the
  # original is deleted, so a failure never loses the original.
  class FileTransfer
    COPY_OPERATION = "NSDragOperationCopy"
    PARTIAL_PREFIX = ".skelvo-partial-"
    COPY_BLOCK_SIZE = 4 * 1024 * 1024
    PROGRESS_INTERVAL = 0.25
    MAX_NUMBERED_NAMES = 10_000
    MAX_LISTED_PROBLEMS = 5

    # A problem with one item; the other items still go ahead.
    class ItemError < StandardError; end

    def self.renamed_filename_key(index)
      "RENAMED_FILENAME_#{index}"
    end

    # move: false for the copying actions; a moving action copies too when the
    # drop asked for a copy (OPERATION is NSDragOperationCopy).
    # rename: take each item's new name from RENAMED_FILENAME_<n>, n counting
    # the items from 0; an item without one keeps its name.
    def initialize(items, variables, helper, move:, rename:)
      @items = Array(items)
      @variables = variables
      @helper = helper
      @move = move && variables["OPERATION"] != COPY_OPERATION
      @rename = rename
      @verb, @verbing, @verbed = @move ? %w[move Moving Moved] : %w[copy Copying Copied]
    end

    def run
      problem = request_problem
      return @helper.fail(problem) if problem

      @destination = File.expand_path(@variables["path"])
      @destination_real = File.realpath(@destination)
      @folder_name = display_folder_name
      @placed = []
      @problems = []
      @last_percent = -1
      @last_report = nil

      @helper.determinate(true)
      @items.each_with_index { |source, index| transfer(source, index) }
      finish
    end

    private

    # Problems that stop the whole run before anything is touched.
    def request_problem
      if @variables["dragged_type"] == "text"
        return "#{action_name} takes files and folders, not text"
      end
      return "There is nothing to #{@verb}" if @items.empty?

      destination = @variables["path"].to_s
      return "No destination folder is set for #{action_name}" if destination.empty?
      # The runner's working folder is no place to guess for a relative path.
      return "The destination #{destination} is not an absolute path" unless destination.start_with?("/")

      destination = File.expand_path(destination)
      unless File.directory?(destination)
        return "The destination #{destination} is not a folder" if File.exist?(destination)

        return "The destination folder #{destination} does not exist"
      end
      return nil unless @rename

      @items.each_index do |index|
        name = @variables[self.class.renamed_filename_key(index)]
        next if name.nil?
        return "\"#{name}\" cannot be used as a name" unless valid_name?(name)
      end
      nil
    end

    def action_name
      base = @move ? "Move Files" : "Copy Files"
      @rename ? "Rename & #{base}" : base
    end

    def valid_name?(name)
      !name.empty? && name != "." && name != ".." && !name.include?("/") && !name.include?("\0")
    end

    def display_folder_name
      name = File.basename(@destination)
      name.empty? ? @destination : name
    end

    def target_name(source, index)
      original = File.basename(source)
      return original unless @rename

      @variables[self.class.renamed_filename_key(index)] || original
    end

    def transfer(source, index)
      @index = index
      @reported_in_item = false
      raise ItemError, "Item #{index + 1} is not an absolute path (#{source})" unless source.to_s.start_with?("/")

      source = File.expand_path(source)
      name = target_name(source, index)
      @helper.begin_message(begin_text(source, name))
      final = place(source, name)
      @placed << [File.basename(source), File.basename(final)]
      @helper.output_file(final)
    rescue ItemError => e
      @problems << e.message
    rescue SystemCallError, IOError => e
      @problems << "Could not #{@verb} #{File.basename(source)} (#{reason(e)})"
      warn("Could not #{@verb} #{source} to #{@destination} (#{e.message})")
    ensure
      report_progress(index + 1, force: true)
    end

    def begin_text(source, name)
      original = File.basename(source)
      text = "#{@verbing} #{original}"
      text += " as #{name}" if name != original
      text += " (#{@index + 1} of #{@items.size})" if @items.size > 1
      text
    end

    # Puts one item in place and returns its final path.
    def place(source, name)
      stat = lstat_of(source)
      directory = stat.directory?
      check_not_into_itself(source, directory)
      if @move && File.identical?(File.dirname(source), @destination) && name == File.basename(source)
        raise ItemError, "#{name} is already in #{@folder_name}"
      end

      claim = claim_name(name, directory)
      copied_across = false
      begin
        if @move
          copied_across = move_into(source, claim)
        else
          copy_into(source, claim)
        end
      rescue StandardError
        release_claim(claim, directory)
        raise
      end
      remove_original(source, claim) if copied_across
      claim
    end

    def lstat_of(source)
      File.lstat(source)
    rescue Errno::ENOENT, Errno::ENOTDIR
      raise ItemError, "#{File.basename(source)} no longer exists"
    end

    # A folder cannot go into itself or into one of its own subfolders; a link
    # to a folder is carried as the link, so it can.
    def check_not_into_itself(source, directory)
      return unless directory

      real = File.realpath(source)
      return unless @destination_real == real || @destination_real.start_with?(real.end_with?("/") ? real : "#{real}/")

      raise ItemError, "Cannot #{@verb} #{File.basename(source)} into itself"
    end

    # Candidates: the name itself, then "stem 2.ext", "stem 3.ext" ... The
    # extension is what follows the last dot of a file's name (not a leading
    # dot); folders keep their whole name as the stem.
    def numbered_names(name, directory)
      stem = name
      extension = ""
      dot = name.rindex(".")
      if !directory && dot && dot.positive?
        stem = name[0...dot]
        extension = name[dot..]
      end
      Enumerator.new do |names|
        names << name
        (2..MAX_NUMBERED_NAMES).each { |number| names << "#{stem} #{number}#{extension}" }
      end
    end

    # Claims the first free name with an exclusive create (an empty folder for
    # a folder, an empty file for anything else) and returns its path.
    def claim_name(name, directory)
      numbered_names(name, directory).each do |candidate|
        path = File.join(@destination, candidate)
        begin
          if directory
            Dir.mkdir(path, 0o700)
          else
            File.open(path, File::WRONLY | File::CREAT | File::EXCL, 0o600, &:close)
          end
          return path
        rescue Errno::EEXIST
          next
        end
      end
      raise ItemError, "No free name for #{name} in #{@folder_name}"
    end

    # Removes a claim that was not filled, and only if it is still the empty
    # placeholder.
    def release_claim(claim, directory)
      if directory
        Dir.rmdir(claim)
      else
        stat = File.lstat(claim)
        File.unlink(claim) if stat.file? && stat.size.zero?
      end
    rescue SystemCallError
      nil
    end

    # True when the item had to be copied to another file system; its original
    # is still there then.
    def move_into(source, claim)
      # rename() replaces the empty claim in one step.
      File.rename(source, claim)
      sync_folder(@destination)
      false
    rescue Errno::EXDEV
      copy_into(source, claim)
      true
    end

    def copy_into(source, claim)
      partial = File.join(@destination, "#{PARTIAL_PREFIX}#{SecureRandom.hex(8)}")
      @item_bytes = measure(source)
      @item_copied = 0
      begin
        copy_entry(source, partial)
        File.rename(partial, claim)
      rescue StandardError
        FileUtils.rm_rf(partial)
        raise
      end
      sync_folder(@destination)
    end

    # After a move across file systems: the copy is complete and synced, so
    # the original can go. If it cannot, the copy stays and the run fails.
    def remove_original(source, copy)
      FileUtils.rm_r(source)
    rescue SystemCallError => e
      @helper.output_file(copy)
      warn("Moved #{source} to #{@destination} but could not remove the original (#{e.message})")
      raise ItemError, "#{File.basename(source)} was copied to #{@folder_name}, " \
                       "but the original could not be removed (#{reason(e)})"
    end

    def copy_entry(source, target)
      stat = File.lstat(source)
      case stat.ftype
      when "file" then copy_file(source, target, stat)
      when "directory" then copy_directory(source, target, stat)
      when "link"
        File.symlink(File.readlink(source), target)
        File.lutime(stat.atime, stat.mtime, target)
      when "fifo"
        File.mkfifo(target, 0o600)
        keep_attributes(target, stat)
      else
        raise ItemError, "Cannot #{@verb} #{File.basename(source)} (#{stat.ftype} files cannot be copied)"
      end
    end

    def copy_file(source, target, stat)
      File.open(source, File::RDONLY | File::BINARY) do |input|
        File.open(target, File::WRONLY | File::CREAT | File::EXCL | File::BINARY, 0o600) do |output|
          loop do
            copied = IO.copy_stream(input, output, COPY_BLOCK_SIZE)
            break if copied.zero?

            @item_copied += copied
            # Items that fit in one block just report when they are done.
            report_progress(@index + @item_copied.fdiv(@item_bytes)) if @item_bytes > COPY_BLOCK_SIZE
          end
          output.fsync
        end
      end
      keep_attributes(target, stat)
    end

    def copy_directory(source, target, stat)
      # Private while it is filled; its own permissions come last.
      Dir.mkdir(target, 0o700)
      Dir.children(source).sort.each do |child|
        copy_entry(File.join(source, child), File.join(target, child))
      end
      keep_attributes(target, stat)
    end

    def keep_attributes(target, stat)
      File.chmod(stat.mode & 0o7777, target)
      File.utime(stat.atime, stat.mtime, target)
    end

    def measure(source)
      stat = File.lstat(source)
      return stat.file? ? stat.size : 0 unless stat.directory?

      Dir.children(source).sum { |child| measure(File.join(source, child)) }
    rescue SystemCallError
      0
    end

    def sync_folder(folder)
      File.open(folder, File::RDONLY, &:fsync)
    rescue SystemCallError, IOError
      nil
    end

    # Progress of the whole run: every item has the same share, and an item
    # being copied fills its share by bytes.
    def report_progress(position, force: false)
      percent = (position * 100 / @items.size).floor.clamp(0, 100)
      now = Process.clock_gettime(Process::CLOCK_MONOTONIC)
      if force
        # Each item ends with its progress, unless the copy just reported it.
        return if @reported_in_item && percent == @last_percent
      else
        return if percent <= @last_percent
        return if @last_report && now - @last_report < PROGRESS_INTERVAL

        @reported_in_item = true
      end
      @helper.progress(percent)
      @last_percent = percent
      @last_report = now
    end

    def finish
      return @helper.finish_message(success_message) if @problems.empty?

      @helper.fail(failure_message)
    end

    # "error" or "fail" in a finish message marks the run as failed, so a
    # name holding either is left out of the success message.
    def success_message
      count = @placed.size
      items = count == 1 ? "1 item" : "#{count} items"
      candidates = []
      if count == 1
        original, final = @placed.first
        candidates << "#{@verbed} #{original}#{" as #{final}" if final != original} to #{@folder_name}"
      end
      candidates << "#{@verbed} #{items} to #{@folder_name}"
      candidates << "#{@verbed} #{items}"
      candidates.find { |message| !message.include?("error") && !message.include?("fail") }
    end

    def failure_message
      summary = if @placed.empty?
                  @items.size == 1 ? nil : "Could not #{@verb} any of the #{@items.size} items"
                else
                  "#{@verbed} #{@placed.size} of #{@items.size} items to #{@folder_name}"
                end
      listed = @problems.first(MAX_LISTED_PROBLEMS)
      listed << "and #{@problems.size - MAX_LISTED_PROBLEMS} more" if @problems.size > MAX_LISTED_PROBLEMS
      [summary, *listed].compact.join("\n")
    end

    def reason(error)
      return error.message unless error.is_a?(SystemCallError)

      SystemCallError.new(nil, error.errno).message
    end
  end
end
