namespace kivTamber { int placeholder_ = 0; }
