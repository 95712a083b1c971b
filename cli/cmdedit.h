// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// edit IN... -o OUT [--do COMMAND]... [--script FILE]: opens each IN as a document, runs the
// commands in the order given through the main window's dispatch (the first document is current
// at the start), and saves the current document to OUT. Nothing is saved when a step fails; the
// message names the step. Returns the exit status as the other commands do.
int LCliRunEdit(int argc, char** argv);

// The commands `edit` knows, with their settings, for --help.
void LCliPrintEditCommands();
