// libcsi.so exports the libcsi_* functions of the static library whole.
