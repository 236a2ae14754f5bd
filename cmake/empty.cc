// The SDK library is made of its components; this file only gives the target a source.
