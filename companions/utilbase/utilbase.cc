// Utility library (placeholder until its components land).
