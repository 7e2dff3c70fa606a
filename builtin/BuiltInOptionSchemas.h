#pragma once

// Registers the configuration panels of the built-in actions (and of the shipped script
// actions whose panels the command line can fill) with the option-schema registry.
void registerBuiltInOptionSchemas();
