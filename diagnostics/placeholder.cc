// Placeholder until the diagnostics component lands.
