// Nothing but a place to compile the headers that all unit tests share.
