# Skelvo Action Info
# Name: Custom Action Ruby Template
# Description: A starting point for your own action in Ruby. It tells you how many items it received.
# Handles: Files, Text
# Creator: Skelvo
# URL: https://skelvo.org/actions
# Events: Clicked, Dragged
# SkipConfig: Yes
# RunsSandboxed: Yes
# Version: 1.0
# MinSkelvoVersion: 4.0

# The comment lines at the top are this action's header. Skelvo reads them up to
# the first blank line: keep the first line exactly as it is, write one
# "# Key: Value" per line and end the header with a blank line. The Name must
# differ from every other action's; the guide for action authors lists each key.

# Skelvo's runner loads this file and calls the method named after the event
# (test_connection and authorize only when the Events line lists them):
#   dragged(items, variables, helper)    files or text were dropped on the action
#   clicked(variables, helper)           the action was clicked
#   test_connection(variables, helper), authorize(variables, helper)

# items: the dropped file paths in their order, or one String with the dropped
#   text or URL. variables: a Hash of Strings, the action's settings plus
#   dragged_type         "files" or "text"
#   support_folder       Skelvo's data folder; tmp_folder, for temporary files
#   app_version          the Skelvo version; os_version, the system's
#   apple_silicon        "1" on ARM machines; disable_ssl_verify, "1" when set
#   http_proxy           and https_proxy, the proxies to use when there are any
#   OPERATION            "NSDragOperationCopy" when the drop asked for a copy
#   KEY_MODIFIERS        "Option", "Command", "Shift" or "Control" when held
#   password_variable    the name of the variable that holds a stored password

# Report back through helper, which the runner passes in: it prints the lines
# Skelvo reads on standard output ("Command: message"), waits until each one has
# been taken in and sends line breaks in a message for you. Other output goes to
# the debug console, but a printed line holding a colon and a blank is a command.
#   begin_message(text)              status text of the progress row
#   determinate(flag)                true for a progress bar, false for a spinner
#   progress(percent)                the bar's position, 0 to 100
#   finish_message(text)             the notification text at the end; "error"
#                                    or "fail" in it marks the run as failed
#   fail(text)                       report a failed run now, then return
#   url_title(text)                  the title shown with a URL result
#   url(text), text(text)            put the result on the clipboard and finish
#   error_title(text), error(text)   show an error alert; the run has failed
#   alert_title(text), alert(text)   show an informational alert
#   save_value(name, value)          keep a value in the action's settings
#   remove_value(name)               forget a kept value
#   output_file(path)                a file this run wrote into a watched folder
#   add_dropbar(paths)               put files on the Drop Bar
#   select_folder(prompt)            ask for a folder: its path, or nil
#   notification_script(script)      a script to run when the notification is
#                                    clicked
def dragged(items, variables, helper)
  if variables["dragged_type"] == "text"
    helper.finish_message("Received #{items.first.to_s.length} characters of text")
    return
  end

  helper.begin_message("Measuring #{items.size} items")
  helper.determinate(true)
  bytes = 0
  items.each_with_index do |path, index|
    bytes += File.size(path) if File.file?(path)
    helper.progress((index + 1) * 100 / items.size)
  end
  helper.finish_message("Received #{items.size} items with #{bytes} bytes in files")
end

# A click brings no items, only the variables.
def clicked(variables, helper)
  helper.finish_message("Clicked in Skelvo #{variables['app_version']}")
end
