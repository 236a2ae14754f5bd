// Placeholder until the fifo component lands.
