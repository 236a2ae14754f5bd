// Logging library (placeholder until its components land).
