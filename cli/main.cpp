// sk: the command-line tool. Every command lives in the table in Commands.cpp.
#include "cli/Commands.h"

int main(int argc, char* argv[])
{
    sk::Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        arguments.emplace_back(argv[i]);
    }
    return sk::runCommandLine(arguments);
}
