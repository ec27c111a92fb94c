#pragma once
// Shows the outcome of an update check in a small modal dialog over the
// window: an offer with a button that opens the version's page in the
// browser, or the note that velko is up to date or could not check.
// Main thread.

#include <functional>
#include <memory>

#include <gtk/gtk.h>

#include "updater/Updater.h"

namespace velko {

// `parent` gives the window to center over at the moment of showing (or null).
std::shared_ptr<UpdatePresenting> makeUpdateDialogPresenter(std::function<GtkWindow*()> parent);

}  // namespace velko
