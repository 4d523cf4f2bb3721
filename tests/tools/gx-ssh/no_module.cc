// A shared library that is no module.
int gx_nothing = 0;
