// Built as libsecret-1.so.0 into its own folder: a library of the right name without any of
// libsecret's functions, which the secret-service test puts first on LD_LIBRARY_PATH.
extern "C" int veerlineFakeLibsecret() { return 0; }
