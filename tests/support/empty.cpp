// Keeps the support library a library while no other helper has a source file.
