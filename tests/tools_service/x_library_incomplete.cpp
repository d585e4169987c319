extern "C" void XOpenDisplay() {}
