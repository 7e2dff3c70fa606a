# Skelvo Action Info
# Name: Rename & Move Files
# Description: Asks for a new name for each dropped file and folder and moves it into the chosen folder under that name.\nNothing there is overwritten - a name that is taken gets a number.
# Handles: Files
# Creator: Skelvo
# URL: https://skelvo.org/actions
# OptionsNIB: ChooseFolderRename
# UseSelectedItemNameAndIcon: Yes
# Events: Dragged
# SkipConfig: No
# RunsSandboxed: Yes
# Version: 1.0
# MinSkelvoVersion: 4.0

# The work is shared by the four file actions; runner.rb puts the library
# folder on the load path.
require "skelvo/file_transfer"

# Moves the dropped items into the folder in the variable "path" under the
# names entered in the rename prompt (RENAMED_FILENAME_0 for the first item,
# RENAMED_FILENAME_1 for the second, ...); copies them instead when OPERATION is
# "NSDragOperationCopy".
def dragged(items, variables, helper)
  Skelvo::FileTransfer.new(items, variables, helper, move: true, rename: true).run
end
