/* The command line of pelkinctl. The only file that knows how it is read. */
#ifndef PELKIN_TOOLS_COMMAND_LINE_H
#define PELKIN_TOOLS_COMMAND_LINE_H

/*
 * Reads the arguments and carries out the command that they name. Returns the exit status; help and
 * version go to standard output with 0, wrong usage to standard error with 1.
 */
int run_command_line(int argc, char **argv);

#endif
