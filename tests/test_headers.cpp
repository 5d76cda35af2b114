// Precompiled headers need a target with a source file.
