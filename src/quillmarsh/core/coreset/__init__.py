"""Coreset classes."""
