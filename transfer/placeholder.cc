// Placeholder until the transfer component lands.
