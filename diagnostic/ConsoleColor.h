#pragma once

// Terminal colours of the command-line mode; each writes one escape sequence
// to standard output.
void setDefaultConsoleColor();
void setRedConsoleColor();
void setOrangeConsoleColor();
void setGreenConsoleColor();
void setBlueConsoleColor();
void setGrayConsoleColor();
