# frozen_string_literal: true

# Runs one Skelvo action:  ruby runner.rb TASK_DESCRIPTION_FILE
#
# Reads the task description, loads the action's script and calls the
# function named after the event with the items, the variables and a helper
# that speaks Skelvo's output protocol. A Python action (a bundle holding
# action.py) is handed to the Python interpreter in PYTHON_PATH, which runs
# skelvo_runner.py on the parsed task with a helper of the same methods.
#
# Exit status: 0 when the action returned, 1 when it raised (the message and
# backtrace are on standard error), 2 when the action could not be run at all
# (unreadable task description, missing script or handler, no interpreter).

lib_folder = __dir__
$LOAD_PATH.unshift(lib_folder) unless $LOAD_PATH.include?(lib_folder)

require "skelvo/task_description"
require "skelvo/channel"
require "skelvo/helper"

module Skelvo
  module Runner
    EVENTS = %w[dragged clicked test_connection authorize].freeze
    EXIT_ACTION_FAILED = 1
    EXIT_CANNOT_RUN = 2
    PYTHON_RUNNER = File.join(__dir__, "skelvo_runner.py")

    # Raised for problems that keep the action from running at all.
    class CannotRun < StandardError; end

    module_function

    def main(argv)
      argv = argv.dup
      # The acknowledgements arrive on descriptor 0. Neither the action nor a
      # program it starts may read them: the channel keeps a private copy
      # (Ruby's descriptors are closed on exec) and 0 becomes /dev/null.
      acknowledgements = STDIN.dup
      STDIN.reopen(File::NULL)
      channel = Channel.new(input: acknowledgements)
      $stdout = channel.stdout_stream
      $stderr = channel.stderr_stream
      # Kernel#gets would read the files named in ARGV.
      $stdin = STDIN
      ARGV.clear
      # Runs after the action's own exit handlers, which may still print.
      at_exit do
        $!.is_a?(SignalException) ? channel.flush_streams_without_waiting : channel.flush_streams
      end

      begin
        status = run(argv, channel)
      rescue SignalException
        # Skelvo is cancelling the run and may no longer answer.
        channel.flush_streams_without_waiting
        raise
      rescue SystemExit
        channel.flush_streams
        raise
      end
      channel.flush_streams
      status
    end

    def run(argv, channel)
      raise CannotRun, "Usage: ruby runner.rb TASK_DESCRIPTION_FILE" unless argv.length == 1

      task = TaskDescription.read(argv[0])
      task.warnings.each { |warning| warn(warning) }
      event = task.event
      raise CannotRun, "Unknown event \"#{event}\" in the task description" unless EVENTS.include?(event)

      script = script_path(task.action_path)
      if File.extname(script) == ".py"
        exec_python(task, script, channel)
      else
        run_ruby(task, script, Helper.new(channel))
      end
    rescue CannotRun, TaskDescriptionError => e
      warn(e.message)
      EXIT_CANNOT_RUN
    end

    # A bundle runs action.py when it has one, otherwise action.rb; a
    # single-file action is its own Ruby script.
    def script_path(action_path)
      if File.directory?(action_path)
        python = File.join(action_path, "action.py")
        return python if File.file?(python)

        script = File.join(action_path, "action.rb")
      else
        script = action_path
      end
      raise CannotRun, "No action script at #{script}" unless File.file?(script)

      script
    end

    def handler_arguments(task, helper)
      task.event == "dragged" ? [task.items, task.variables, helper] : [task.variables, helper]
    end

    def run_ruby(task, script, helper)
      script = File.expand_path(script)
      action_folder = File.dirname(script)
      $LOAD_PATH.push(action_folder) unless $LOAD_PATH.include?(action_folder)
      $PROGRAM_NAME = script

      event = task.event
      begin
        load(script)
      rescue SystemExit, SignalException
        raise
      rescue Exception => e # a broken script must still end in a report
        return report_exception(e)
      end

      main_object = TOPLEVEL_BINDING.receiver
      unless main_object.respond_to?(event, true)
        signature = event == "dragged" ? "#{event}(items, variables, helper)" : "#{event}(variables, helper)"
        raise CannotRun, "The action #{script} has no handler for the event \"#{event}\"; " \
                         "define #{signature}"
      end

      begin
        main_object.__send__(event, *handler_arguments(task, helper))
      rescue SystemExit, SignalException
        raise
      rescue Exception => e # as above
        return report_exception(e)
      end
      0
    end

    def report_exception(exception)
      $stderr.write(exception.full_message(highlight: false, order: :top))
      $stderr.flush
      EXIT_ACTION_FAILED
    rescue SystemCallError, IOError
      EXIT_ACTION_FAILED
    end

    # The Python runner gets the parsed task through an unlinked temporary
    # file on descriptor 3, so the task is parsed in one place only, and takes
    # over this process (same process id and group, standard output passed on
    # as it is, the acknowledgements back on standard input).
    def exec_python(task, script, channel)
      require "json"
      require "tempfile"

      python = ENV.fetch("PYTHON_PATH", "")
      python = "python3" if python.empty?
      handoff = Tempfile.create("skelvo-task-")
      File.unlink(handoff.path)
      handoff.write(JSON.generate(scrubbed(task.to_h.merge("script" => script))))
      handoff.flush
      handoff.rewind

      channel.flush_streams
      begin
        exec([python, python], "-B", "-X", "utf8", PYTHON_RUNNER, "--task-fd", "3",
             3 => handoff, 0 => channel.input)
      rescue SystemCallError => e
        raise CannotRun, "Cannot start the Python interpreter #{python} (#{e.message})"
      ensure
        handoff.close unless handoff.closed?
      end
    end

    # JSON needs valid UTF-8; the task file is written as UTF-8, so this only
    # guards against a damaged file.
    def scrubbed(value)
      case value
      when String then value.valid_encoding? ? value : value.scrub
      when Array then value.map { |element| scrubbed(element) }
      when Hash then value.to_h { |key, element| [scrubbed(key), scrubbed(element)] }
      else value
      end
    end
  end
end

exit(Skelvo::Runner.main(ARGV)) if $PROGRAM_NAME == __FILE__
