# Skelvo Action Info
# Name: Copy Files
# Description: Copies the dropped files and folders into the chosen folder.\nNothing there is overwritten - a name that is taken gets a number, as in Report 2.pdf.
# Handles: Files
# Creator: Skelvo
# URL: https://skelvo.org/actions
# OptionsNIB: ChooseFolder
# UseSelectedItemNameAndIcon: Yes
# Events: Dragged
# SkipConfig: No
# RunsSandboxed: Yes
# Version: 1.0
# MinSkelvoVersion: 4.0

# The work is shared by the four file actions; runner.rb puts the library
# folder on the load path.
require "skelvo/file_transfer"

# Copies the dropped items into the folder in the variable "path".
def dragged(items, variables, helper)
  Skelvo::FileTransfer.new(items, variables, helper, move: false, rename: false).run
end
