"""Data records, the data manager and the preprocessor."""
