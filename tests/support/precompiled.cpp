// Compiled only for the precompiled header that the test programs of one
// directory share (nimiob_add_test).
