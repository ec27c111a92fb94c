#pragma once
// The desktop program: a single-instance GTK application with the one velko
// window. Returns the process exit status.

namespace velko {

int runDesktop(int argc, char** argv);

}  // namespace velko
