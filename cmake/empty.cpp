// Placeholder so that a subsystem without sources still forms a library.
